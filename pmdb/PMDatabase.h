#pragma once

// Placeholder until the SQLite record store lands.
template <typename Row>
class PMDatabase {
  public:
    virtual ~PMDatabase() = default;
};
