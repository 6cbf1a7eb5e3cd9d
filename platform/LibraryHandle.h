#pragma once

#include <dlfcn.h>

#include <memory>

namespace pwr {

struct LibraryCloser {
    void operator()(void* handle) const { dlclose(handle); }
};

// The one owner of a dlopen handle: it is closed exactly once, when the owner is reset or goes.
using LibraryHandle = std::unique_ptr<void, LibraryCloser>;

// Opens `library` by file name or path with immediate binding; null when it cannot be loaded
// (dlerror() then says why).
inline LibraryHandle openLibrary(const char* library) {
    return LibraryHandle(dlopen(library, RTLD_NOW));
}

// The entry point `symbol` of `library` as an `Fn`; null when it is missing (dlerror() then says
// why). An error left over from an earlier call is cleared first, so dlerror() speaks of this
// lookup.
template <typename Fn>
Fn findEntry(const LibraryHandle& library, const char* symbol) {
    dlerror();
    return reinterpret_cast<Fn>(dlsym(library.get(), symbol));
}

}  // namespace pwr
