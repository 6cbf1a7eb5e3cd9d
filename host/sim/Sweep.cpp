#include "host/sim/Sweep.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <nlohmann/json.hpp>

#include "host/sim/RunOptions.h"
#include "host/sim/RunPool.h"
#include "host/sim/Scenario.h"
#include "host/sim/Subcommands.h"
#include "host/sim/TempDir.h"
#include "host/tools/FeatureConfigEdit.h"
#include "host/tools/FeatureConfigXml.h"
#include "host/tools/InputFile.h"
#include "host/tools/ToolOptions.h"

namespace pwr::sim {
namespace {

using android::base::StringPrintf;
using nlohmann::json;

constexpr char kTool[] = "pwr-sim sweep";
using pwr::tools::kInterrupted;
using pwr::tools::kUsageError;
constexpr size_t kMaxRuns = 10000;

void usage(std::ostream& out) {
    out << "usage: pwr-sim sweep --config BASE.xml --set KEY=VALUES [--set ...] --out DIR\n"
           "                     [options] SCENARIO.json...\n"
           "\n"
           "Runs every combination of the --set values (each a <Config> of BASE.xml, which is\n"
           "copied with the values put in) over each scenario, as separate processes on every\n"
           "core, and writes DIR/sweep.csv and sweep.json with each run's figures and, with\n"
           "--device, DIR/tradeoff.svg: charge against GPU saturation per configuration with the\n"
           "best-of-both (Pareto) ones marked.\n"
           "\n"
           "  --set KEY=FROM:TO:STEP  FROM, then every STEP up to TO (inclusive)\n"
           "  --set KEY=V1,V2,...     the values listed\n"
           "\n"
           "options:\n"
           "  --device MODEL.json  the device model (closed loop; the figures need it)\n"
           "  --jobs N             runs at once (default: the number of cores)\n"
           "  --plugin PATH        the plug-in library the runs load\n"
           "  -h, --help           this text\n"
           "\n"
           "Exit status: 0 done; 1 an input is invalid or a run failed; 2 usage error; 130\n"
           "interrupted (the runs are stopped and the temporary files removed).\n";
}

int fail(const std::string& message) {
    std::cerr << kTool << ": error: " << message << '\n';
    return 1;
}

bool number(const std::string& text, double* out) {
    char* end = nullptr;
    errno = 0;
    *out = strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && errno == 0 && std::isfinite(*out);
}

std::string csv(const std::string& field) {
    if (field.find_first_of(",\"\n") == std::string::npos) return field;
    std::string out = "\"";
    for (char c : field) out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

// A figure of a run's JSON summary, or NaN when it has none (an open-loop run).
double figure(const json& summary, const char* key) {
    const json* energy = summary.contains("energy") ? &summary["energy"] : nullptr;
    if (energy == nullptr || !energy->is_object() || !energy->contains(key)) return std::nan("");
    return (*energy)[key].get<double>();
}

std::string cell(double v, const char* format) {
    return std::isnan(v) ? "" : StringPrintf(format, v);
}

}  // namespace

bool SweepAxis::parse(const std::string& text, SweepAxis* out, std::string* error) {
    const size_t eq = text.find('=');
    if (eq == std::string::npos || eq == 0 || eq + 1 == text.size()) {
        *error = "\"" + text + "\" is not KEY=FROM:TO:STEP or KEY=V1,V2,...";
        return false;
    }
    out->key = text.substr(0, eq);
    out->values.clear();
    const std::string spec = text.substr(eq + 1);
    const std::vector<std::string> range = android::base::Split(spec, ":");
    if (range.size() == 3) {
        double from = 0;
        double to = 0;
        double step = 0;
        if (!number(range[0], &from) || !number(range[1], &to) || !number(range[2], &step) ||
            step <= 0 || to < from) {
            *error = out->key + ": \"" + spec +
                     "\" is not FROM:TO:STEP with FROM at most TO and STEP above 0";
            return false;
        }
        // Values are counted, not accumulated, so that 0.1 steps land on their marks.
        const double count = std::floor((to - from) / step + 1e-9) + 1;
        if (count > static_cast<double>(kMaxRuns)) {
            *error = out->key + ": \"" + spec + "\" makes more than 10000 values";
            return false;
        }
        for (int i = 0; i < static_cast<int>(count); ++i) {
            out->values.push_back(StringPrintf("%.10g", from + i * step));
        }
        return true;
    }
    if (range.size() != 1) {
        *error = out->key + ": \"" + spec + "\" is not FROM:TO:STEP or V1,V2,...";
        return false;
    }
    for (const std::string& piece : android::base::Split(spec, ",")) {
        const std::string value = android::base::Trim(piece);
        double unused = 0;
        if (!number(value, &unused)) {
            *error = out->key + ": \"" + value + "\" is not a number";
            return false;
        }
        out->values.push_back(value);
    }
    return true;
}

std::vector<bool> paretoFront(const std::vector<std::pair<double, double>>& points) {
    std::vector<bool> front(points.size(), true);
    for (size_t i = 0; i < points.size(); ++i) {
        for (size_t j = 0; j < points.size() && front[i]; ++j) {
            const auto& [ax, ay] = points[j];
            const auto& [bx, by] = points[i];
            if (ax <= bx && ay <= by && (ax < bx || ay < by)) front[i] = false;
        }
    }
    return front;
}

int sweepMain(int argc, char** argv) {
    RunOptions options;
    const int exit = options.parse(argc, argv, true, kTool, usage);
    if (exit >= 0) return exit;
    std::string error;
    std::vector<SweepAxis> axes;
    for (const std::string& set : options.sets) {
        SweepAxis axis;
        if (!SweepAxis::parse(set, &axis, &error)) {
            std::cerr << kTool << ": --set " << error << '\n';
            return kUsageError;
        }
        for (const SweepAxis& other : axes) {
            if (other.key == axis.key) {
                std::cerr << kTool << ": --set " << axis.key << " is given twice\n";
                return kUsageError;
            }
        }
        axes.push_back(axis);
    }
    const std::string& basePath = options.configPath;
    const std::string& devicePath = options.devicePath;
    const std::string& outDir = options.outDir;
    const std::vector<std::string>& scenarios = options.positional;
    if (basePath.empty() || axes.empty() || outDir.empty() || scenarios.empty()) {
        usage(std::cerr);
        return kUsageError;
    }

    // Everything is checked, and every configuration written, before anything runs.
    std::string baseText;
    tools::FeatureConfig base;
    if (!tools::readInputFile(basePath, &baseText, &error) ||
        !tools::FeatureConfigXml::parseText(baseText, basePath, &base, &error)) {
        return fail(error);
    }
    for (const SweepAxis& axis : axes) {
        if (base.info.configs.count(axis.key) == 0) {
            return fail(basePath + ": no <Config name=\"" + axis.key + "\"> to sweep");
        }
    }
    for (const std::string& path : scenarios) {
        Scenario scenario;
        if (!Scenario::parseFile(path, &scenario, &error)) return fail(error);
    }
    if (!options.checkDeviceAndOutput(&error)) return fail(error);
    size_t combinations = 1;
    for (const SweepAxis& axis : axes) combinations *= axis.values.size();
    if (combinations * scenarios.size() > kMaxRuns) {
        return fail(StringPrintf("%zu runs is more than %zu", combinations * scenarios.size(),
                                 kMaxRuns));
    }
    TempDir temp;
    if (!temp.create("pwr-sim-sweep", &error)) return fail(error);

    // Combination k takes value (k / stride) % count of each axis: the first axis varies slowest.
    std::vector<std::map<std::string, std::string>> values(combinations);
    std::vector<RunPool::Run> runs;
    std::vector<std::string> jsonPaths;
    for (size_t k = 0; k < combinations; ++k) {
        size_t stride = combinations;
        for (const SweepAxis& axis : axes) {
            stride /= axis.values.size();
            values[k][axis.key] = axis.values[(k / stride) % axis.values.size()];
        }
        std::string text;
        const std::string config = temp.path() + "/config-" + std::to_string(k) + ".xml";
        tools::FeatureConfig check;
        if (!tools::FeatureConfigEdit::setConfigs(baseText, basePath, values[k], &text, &error) ||
            !tools::FeatureConfigXml::parseText(text, config, &check, &error) ||
            !android::base::WriteStringToFile(text, config)) {
            return fail(error.empty() ? "cannot write " + config : error);
        }
        for (size_t s = 0; s < scenarios.size(); ++s) {
            RunPool::Run run;
            const std::string name = temp.path() + StringPrintf("/run-%zu-%zu", k, s);
            run.args = {scenarios[s], "--config", config, "--quiet", "--json", name + ".json"};
            for (const std::string& arg : options.runArgs()) run.args.push_back(arg);
            run.outPath = name + ".out";
            run.errPath = name + ".err";
            runs.push_back(std::move(run));
            jsonPaths.push_back(name + ".json");
        }
    }

    RunPool pool(RunPool::selfPath(), options.jobs, temp.path());
    const bool completed = pool.runAll(runs, RunPool::terminalProgress("sweep", runs.size()));
    RunPool::finishLine();
    if (!completed) {
        std::cerr << kTool << ": interrupted; the runs were stopped and their files removed\n";
        return kInterrupted;
    }

    // Each run's summary; each configuration's totals over the scenarios.
    std::vector<json> summaries(runs.size());
    std::vector<std::string> statuses(runs.size(), "ok");
    size_t failures = 0;
    std::vector<double> charge(combinations, 0);
    std::vector<double> saturatedS(combinations, 0);
    std::vector<double> durationS(combinations, 0);
    std::vector<bool> complete(combinations, true);
    for (size_t i = 0; i < runs.size(); ++i) {
        const size_t k = i / scenarios.size();
        std::string text;
        if (runs[i].status == 0 && android::base::ReadFileToString(jsonPaths[i], &text)) {
            summaries[i] = json::parse(text, nullptr, false);
        }
        if (runs[i].status != 0 || summaries[i].is_discarded() || summaries[i].is_null()) {
            android::base::ReadFileToString(runs[i].errPath, &text);
            const std::string first = text.substr(0, text.find('\n'));
            statuses[i] = StringPrintf("failed (%d): %s", runs[i].status, first.c_str());
            summaries[i] = nullptr;
            complete[k] = false;
            ++failures;
            continue;
        }
        const double c = figure(summaries[i], "charge_mah");
        complete[k] = complete[k] && !std::isnan(c);
        charge[k] += c;
        saturatedS[k] += figure(summaries[i], "gpu_saturated_s");
        durationS[k] += summaries[i]["duration_s"].get<double>();
    }
    std::vector<std::pair<double, double>> points;
    std::vector<size_t> pointOf(combinations, SIZE_MAX);
    for (size_t k = 0; k < combinations; ++k) {
        if (!complete[k]) continue;
        pointOf[k] = points.size();
        // To the tenth shown: differences below it do not separate configurations.
        const double pct = durationS[k] > 0 ? 100.0 * saturatedS[k] / durationS[k] : 0;
        points.emplace_back(std::round(pct * 10) / 10, std::round(charge[k] * 10) / 10);
    }
    const std::vector<bool> front = paretoFront(points);
    auto pareto = [&](size_t k) { return pointOf[k] != SIZE_MAX && front[pointOf[k]]; };
    auto label = [&](size_t k) {
        std::string text;
        for (const SweepAxis& axis : axes) text += (text.empty() ? "" : "/") + values[k][axis.key];
        return text;
    };

    const std::filesystem::path dir(outDir);
    std::ofstream csvFile(dir / "sweep.csv");
    csvFile << "run,scenario";
    for (const SweepAxis& axis : axes) csvFile << ',' << csv(axis.key);
    csvFile << ",status,charge_mah,average_ma,gpu_saturated_s,gpu_unserved_pct,profile_switches,"
               "pareto\n";
    json jsonRuns = json::array();
    for (size_t i = 0; i < runs.size(); ++i) {
        const size_t k = i / scenarios.size();
        const json& summary = summaries[i];
        csvFile << i << ',' << csv(scenarios[i % scenarios.size()]);
        for (const SweepAxis& axis : axes) csvFile << ',' << csv(values[k][axis.key]);
        csvFile << ',' << csv(statuses[i]);
        if (summary.is_null()) {
            csvFile << ",,,,,,\n";
        } else {
            csvFile << ',' << cell(figure(summary, "charge_mah"), "%.3f") << ','
                    << cell(figure(summary, "average_ma"), "%.1f") << ','
                    << cell(figure(summary, "gpu_saturated_s"), "%.3f") << ','
                    << cell(figure(summary, "gpu_unserved_pct"), "%.2f") << ','
                    << summary["profile_switches"].get<int>() << ',' << (pareto(k) ? "yes" : "no")
                    << '\n';
        }
        jsonRuns.push_back({{"run", i},
                            {"scenario", scenarios[i % scenarios.size()]},
                            {"values", values[k]},
                            {"status", statuses[i]},
                            {"pareto", pareto(k)},
                            {"summary", summary}});
    }
    json jsonConfigs = json::array();
    std::vector<TradeoffPoint> tradeoff;
    for (size_t k = 0; k < combinations; ++k) {
        if (pointOf[k] == SIZE_MAX) continue;
        const auto& [x, y] = points[pointOf[k]];
        jsonConfigs.push_back({{"values", values[k]},
                               {"charge_mah", y},
                               {"gpu_saturated_pct", x},
                               {"pareto", pareto(k)}});
        tradeoff.push_back(TradeoffPoint{label(k), x, y, pareto(k)});
    }
    std::ofstream jsonFile(dir / "sweep.json");
    jsonFile << json{{"base_config", basePath},
                     {"device_model", devicePath.empty() ? json(nullptr) : json(devicePath)},
                     {"scenarios", scenarios},
                     {"runs", jsonRuns},
                     {"configurations", jsonConfigs}}
                        .dump(2)
             << '\n';
    csvFile.close();
    jsonFile.close();
    if (!csvFile || !jsonFile) return fail("cannot write the reports in " + outDir);

    std::string keys;
    for (const SweepAxis& axis : axes) keys += (keys.empty() ? "" : "/") + axis.key;
    std::cout << StringPrintf("%zu runs (%zu configurations x %zu scenarios), %zu failed\n",
                              runs.size(), combinations, scenarios.size(), failures);
    if (!tradeoff.empty()) {
        std::ofstream plot(dir / "tradeoff.svg");
        std::string names;
        for (const std::string& s : scenarios) {
            names += (names.empty() ? "" : ", ") + std::filesystem::path(s).filename().string();
        }
        writeTradeoffPlot(tradeoff, "pwr-sim sweep: charge against GPU saturation",
                          "points: " + keys + "; " + names + " on " + devicePath, plot);
        plot.close();
        if (!plot) return fail("cannot write " + (dir / "tradeoff.svg").string());
        std::cout << "Best of both (Pareto), " << keys << ": charge, GPU saturated\n";
        for (const TradeoffPoint& p : tradeoff) {
            if (p.pareto) {
                std::cout << StringPrintf("  %-24s %8.1f mAh  %5.1f%%\n", p.label.c_str(),
                                          p.chargeMah, p.saturatedPct);
            }
        }
    }
    std::cout << "Wrote " << (dir / "sweep.csv").string() << ", sweep.json"
              << (tradeoff.empty() ? "" : " and tradeoff.svg") << '\n';
    return failures == 0 ? 0 : 1;
}

}  // namespace pwr::sim
