#!/usr/bin/env python3
"""Writes the long pwr-sim scenarios used to measure the simulator's memory and speed.

    scripts/gen-long-scenarios.py [OUT_DIR]      (default: build/sim/long)

- events-1m.json: 1,000,000 events (a game and a browser taking turns in the foreground every
  half second, with a gaming hint now and then) over about 139 hours, with GPU and battery traces.
- game-24h.json: one game played for 24 hours, its GPU load changing every 20 minutes.

Both use configs/game.xml. The files are made, not kept in the repository: they are large.
Measure with /usr/bin/time -v build/host/sim/pwr-sim --quiet --out DIR FILE.
"""
import json
import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
FREQS = [180, 267, 355, 430, 565, 650, 750, 850]


def gpu_trace(duration_s, step_s):
    levels = [(250, 42), (400, 58), (520, 71), (780, 93), (480, 64), (180, 12)]
    trace = []
    for i, t in enumerate(range(0, duration_s, step_s)):
        freq, busy = levels[i % len(levels)]
        trace.append({"t": t, "freq_mhz": freq, "busy": busy, "busy_swing": 4,
                      "swing_period": 7})
    return trace


def write(path, scenario, events):
    # Events are written one per line so that the file streams and stays readable.
    with open(path, "w") as out:
        head = json.dumps(scenario, indent=1)[:-2]
        out.write(head + ',\n "events": [\n')
        for i, event in enumerate(events):
            out.write("  " + json.dumps(event) + (",\n" if i + 1 < len(events) else "\n"))
        out.write(" ]\n}\n")


def config_path(out_dir):
    return os.path.relpath(os.path.join(ROOT, "configs", "game.xml"), out_dir)


def million_events(out_dir):
    count = 1000000
    step_ms = 500
    duration_s = count * step_ms // 1000 + 10
    scenario = {
        "name": "One million events",
        "description": "A game and a browser take turns in the foreground every half second.",
        "config": config_path(out_dir),
        "duration": duration_s,
        "apps": {"com.example.game": "game", "com.example.browser": "browser"},
        "gpu": {"frequencies_mhz": FREQS, "trace": gpu_trace(duration_s, 1200)},
        "battery": {"trace": [{"t": 0, "drain_ma": 420, "drain_swing": 60,
                               "swing_period": 30}]},
    }

    def events():
        cycle = ["hint 2 1", "start com.example.game/.MainActivity",
                 "stop com.example.game/.MainActivity", "start com.example.browser/.Main"]
        for i in range(count):
            yield {"t": round(5 + i * step_ms / 1000.0, 3), "event": cycle[i % len(cycle)]}

    write(os.path.join(out_dir, "events-1m.json"), scenario, list(events()))


def game_24h(out_dir):
    duration_s = 24 * 3600
    scenario = {
        "name": "A game played for 24 hours",
        "description": "The GPU load changes every 20 minutes.",
        "config": config_path(out_dir),
        "duration": duration_s,
        "apps": {"com.example.game": "game"},
        "gpu": {"frequencies_mhz": FREQS, "trace": gpu_trace(duration_s, 1200)},
    }
    events = [{"t": 1, "event": "hint 2 1", "note": "gaming mode"},
              {"t": 5, "event": "start com.example.game/.MainActivity", "note": "the game starts"},
              {"t": duration_s - 60, "event": "stop com.example.game/.MainActivity",
               "note": "the game is closed"}]
    write(os.path.join(out_dir, "game-24h.json"), scenario, events)


def main():
    out_dir = sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "sim", "long")
    os.makedirs(out_dir, exist_ok=True)
    million_events(out_dir)
    game_24h(out_dir)
    print("wrote", os.path.join(out_dir, "events-1m.json"), "and game-24h.json")


if __name__ == "__main__":
    main()
