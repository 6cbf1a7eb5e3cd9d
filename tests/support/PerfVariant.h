#pragma once

// For programs that do not link the fake performance library: loads one of its variants by path
// so that the plug-in's dlopen by name finds it by its soname, and reaches the variant's control
// interface through dlsym.

#include <dlfcn.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/fakeperf/FakePerf.h"

namespace pwr::test {

class PerfVariant {
  public:
    // Loads the variant at `path` with global symbols. Call before any PowerHelper exists.
    static void load(const std::string& path) {
        handle() = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
        if (handle() == nullptr) throw std::runtime_error(dlerror());
    }

    static std::map<int, std::vector<int>> heldLocks() {
        // fakeperf::heldLocks()
        return entry<std::map<int, std::vector<int>> (*)()>("_ZN8fakeperf9heldLocksEv")();
    }
    static std::vector<fakeperf::Call> calls() {
        // fakeperf::calls()
        return entry<std::vector<fakeperf::Call> (*)()>("_ZN8fakeperf5callsEv")();
    }

  private:
    static void*& handle() {
        static void* h = nullptr;
        return h;
    }
    template <typename Fn>
    static Fn entry(const char* symbol) {
        void* sym = handle() != nullptr ? dlsym(handle(), symbol) : nullptr;
        if (sym == nullptr) throw std::runtime_error(std::string("no ") + symbol);
        return reinterpret_cast<Fn>(sym);
    }
};

}  // namespace pwr::test
