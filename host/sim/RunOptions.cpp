#include "host/sim/RunOptions.h"

#include <getopt.h>

#include <iostream>

#include <android-base/parseint.h>

#include "host/sim/DeviceModel.h"
#include "host/sim/RunPool.h"
#include "host/sim/TempDir.h"

namespace pwr::sim {

int RunOptions::parse(int argc, char** argv, bool sweep, const char* tool,
                      void (*usage)(std::ostream&)) {
    static const option kOptions[] = {{"device", required_argument, nullptr, 'd'},
                                      {"out", required_argument, nullptr, 'o'},
                                      {"jobs", required_argument, nullptr, 'j'},
                                      {"plugin", required_argument, nullptr, 'p'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {"config", required_argument, nullptr, 'c'},
                                      {"set", required_argument, nullptr, 's'},
                                      {nullptr, 0, nullptr, 0}};
    jobs = RunPool::cores();
    optind = 1;
    for (int c; (c = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1;) {
        switch (c) {
            case 'd':
                devicePath = optarg;
                continue;
            case 'o':
                outDir = optarg;
                continue;
            case 'p':
                pluginPath = optarg;
                continue;
            case 'j':
                if (!android::base::ParseInt(optarg, &jobs, 1, 1024)) {
                    std::cerr << tool << ": --jobs must be a number from 1 to 1024\n";
                    return 2;
                }
                continue;
            case 'h':
                usage(std::cout);
                return 0;
            case 'c':
                configPath = optarg;
                if (sweep) continue;
                break;
            case 's':
                sets.push_back(optarg);
                if (sweep) continue;
                break;
            default:
                break;
        }
        usage(std::cerr);
        return 2;
    }
    positional.assign(argv + optind, argv + argc);
    return -1;
}

std::vector<std::string> RunOptions::runArgs() const {
    std::vector<std::string> args;
    if (!devicePath.empty()) args.insert(args.end(), {"--device", devicePath});
    if (!pluginPath.empty()) args.insert(args.end(), {"--plugin", pluginPath});
    return args;
}

bool RunOptions::checkDeviceAndOutput(std::string* error) const {
    DeviceModel model;
    if (!devicePath.empty() && !DeviceModel::parseFile(devicePath, &model, error)) return false;
    return outDir.empty() || makeWritableFolder(outDir, error);
}

}  // namespace pwr::sim
