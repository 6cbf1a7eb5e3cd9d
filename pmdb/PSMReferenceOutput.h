#pragma once

struct PSMReferenceOutput {};
