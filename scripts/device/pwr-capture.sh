#!/system/bin/sh
# pwr-capture: records on a phone what the power-saving feature reads (the GPU nodes, the
# battery's current_now, the foreground cpuset with its command lines), the foreground activity
# and the starting values of the given properties, for `pwr-sim import capture`.
#
#   adb push scripts/device/pwr-capture.sh /data/local/tmp/
#   adb shell sh /data/local/tmp/pwr-capture.sh [-p SECONDS] [-d SECONDS] [-a SAMPLES] \
#       [PROPERTY...] > capture.txt
#
#   -p SECONDS   time between samples (default 1; hundredths at most)
#   -d SECONDS   stop after this long (default: run until interrupted)
#   -a SAMPLES   read the foreground activity every SAMPLES samples (default 5; 0: never)
#   PROPERTY     a property whose value is recorded once at the start
#                (`pwr-sim import --props-from CONFIG.xml` prints the ones a configuration sets)
#
# The capture goes to standard output in the format of docs/pwr-capture.md. Messages go to
# standard error as '#' lines, which the importer skips should the two streams be mixed.
# Ctrl-C (or SIGTERM, SIGHUP) ends the capture after the sample in hand, with an "end" line.
#
# Written for the phone's own shell (mksh) and its toybox: a sample runs builtins only, except
# when the foreground cpuset gains a process (its command line is read once, with tr) and when
# the foreground activity is due (dumpsys and sed). Times come from /proc/uptime: seconds since
# boot in hundredths, which no change of the wall clock steps. PWR_DEVICE_ROOT, when set, is put
# before every device path, so that the script runs on a host against a fake device tree.

root=${PWR_DEVICE_ROOT:-}
gpu=$root/sys/class/grax/grax-3d0
current=$root/sys/class/power_supply/battery/current_now
procs=$root/dev/cpuset/top-app/cgroup.procs
uptime=$root/proc/uptime
nl='
'

say() { echo "# pwr-capture: $*" >&2; }
usage() {
    say "usage: pwr-capture.sh [-p SECONDS] [-d SECONDS] [-a SAMPLES] [PROPERTY...]"
    exit 2
}

# One line to standard output, with no backslash in it taken for an escape.
if [ -n "${KSH_VERSION:-}" ]; then
    out() { print -r -- "$1"; }
else
    out() { printf '%s\n' "$1"; }
fi

# Sets $hs to a number of seconds ("2", "0.5", "1.25") in hundredths; false for anything else.
hundredths() {
    case $1 in
        '' | . | *[!0-9.]* | *.*.*) return 1 ;;
        *.*) hs=${1%%.*} hf=${1#*.} ;;
        *) hs=$1 hf= ;;
    esac
    case $hf in ??? | ???*) return 1 ;; esac
    hf=${hf}00
    hf=${hf%"${hf#??}"}
    hs=$(( ${hs:-0} * 100 + 1$hf - 100 ))
}

# Hundredths as seconds with two decimals, in $secs.
seconds() {
    secs=$(( $1 % 100 ))
    [ "$secs" -lt 10 ] && secs=0$secs
    secs=$(( $1 / 100 )).$secs
}

# Sets $up to the uptime as the kernel prints it and $now to the hundredths since the first
# call (kept small: mksh counts in 32 bits).
clock() {
    read -r up _ < "$uptime" || { say "cannot read $uptime"; exit 1; }
    cs=${up%%.*}
    cf=${up#*.}00
    cf=${cf%"${cf#??}"}
    [ -n "$base" ] || base=$cs
    now=$(( (cs - base) * 100 + 1$cf - 100 ))
}

# Sets $value to the content of a node, its lines joined by blanks; false when it cannot be read.
readnode() {
    value=
    [ -r "$1" ] || return 1
    while IFS= read -r line || [ -n "$line" ]; do
        value=${value:+$value }$line
    done 2>/dev/null < "$1"
}

# Adds "KEY VALUE" for a node to the sample, or "missing KEY" when it cannot be read.
node() {
    if readnode "$2"; then
        buf=$buf$nl$1${value:+ $value}
    else
        buf="$buf${nl}missing $1"
    fi
}

# Adds the program name of a process that joined the foreground cpuset: its command line up to
# the first NUL, as the feature reads it; empty for a kernel thread.
cmdline() {
    if [ -r "$root/proc/$1/cmdline" ]; then
        name=$(tr '\0' '\n' 2>/dev/null < "$root/proc/$1/cmdline")
        name=${name%%"$nl"*}
        buf="$buf${nl}cmdline $1${name:+ $name}"
    else
        buf="$buf${nl}missing cmdline $1"
    fi
}

# Adds the resumed activity (package/class) that dumpsys reports; empty when none is resumed.
activity() {
    act=$(dumpsys activity activities 2>/dev/null |
        sed -n 's/.*[Rr]esumedActivity[:=] *ActivityRecord{[^ ]* [^ ]* \([^ }]*\).*/\1/p')
    act=${act%%"$nl"*}
    buf="$buf${nl}activity${act:+ $act}"
}

period=100
duration=
every=5
while getopts p:d:a:h opt; do
    case $opt in
        p) hundredths "$OPTARG" && [ "$hs" -gt 0 ] || { say "-p $OPTARG: not a period in seconds"; usage; }
           period=$hs ;;
        d) hundredths "$OPTARG" || { say "-d $OPTARG: not a duration in seconds"; usage; }
           duration=$hs ;;
        a) case $OPTARG in '' | *[!0-9]*) say "-a $OPTARG: not a number of samples"; usage ;; esac
           every=$OPTARG ;;
        *) usage ;;
    esac
done
shift $((OPTIND - 1))
for prop in "$@"; do
    case $prop in '' | -* | *[!A-Za-z0-9_.:@-]*) say "\"$prop\" is not a property name"; usage ;; esac
done
[ -r "$uptime" ] || { say "cannot read $uptime"; exit 1; }
if [ "$every" -gt 0 ] && ! command -v dumpsys > /dev/null 2>&1; then
    say "dumpsys not found: the foreground activity is not recorded"
    every=0
fi
if [ $# -gt 0 ] && ! command -v getprop > /dev/null 2>&1; then
    say "getprop not found: cannot read the properties"
    exit 1
fi

stop=
trap 'stop=interrupted' INT TERM HUP

seconds "$period"
every_text=$secs
buf="pwr-capture 1${nl}period $secs${nl}activity_every $every"
if command -v getprop > /dev/null 2>&1; then
    model=$(getprop ro.product.model 2>/dev/null)
    buf="$buf${nl}model${model:+ $model}"
fi
for prop in "$@"; do
    value=$(getprop "$prop" 2>/dev/null)
    buf="$buf${nl}prop $prop${value:+ $value}"
done
node gpu_available_frequencies "$gpu/gpu_available_frequencies"
out "$buf"
if [ -n "$duration" ]; then seconds "$duration"; secs="for $secs s"; else secs="until interrupted"; fi
say "sampling every $every_text s, $secs; Ctrl-C stops"

base=
seen=' '
samples=0
next=0
clock
while :; do
    buf="sample $up"
    node gpuclk "$gpu/gpuclk"
    node gpubusy "$gpu/gpubusy"
    node gpu_clock_stats "$gpu/gpu_clock_stats"
    node current_now "$current"
    if readnode "$procs"; then
        buf="$buf${nl}top${value:+ $value}"
        members=' '
        for pid in $value; do
            case $seen in *" $pid "*) ;; *) cmdline "$pid" ;; esac
            members="$members$pid "
        done
        seen=$members
    else
        buf="$buf${nl}missing top"
        seen=' '
    fi
    [ "$every" -gt 0 ] && [ $(( samples % every )) -eq 0 ] && activity
    out "$buf"
    samples=$(( samples + 1 ))
    [ $(( samples % 60 )) -eq 0 ] && say "$samples samples"
    [ -n "$stop" ] && break

    next=$(( next + period ))
    if [ -n "$duration" ] && [ "$next" -gt "$duration" ]; then
        stop=duration
        break
    fi
    clock
    # Behind time (a slow read, a phone that slept): the missed samples are skipped, and the
    # importer reports the gap.
    while [ "$next" -le "$now" ]; do next=$(( next + period )); done
    seconds $(( next - now ))
    sleep "$secs"
    [ -n "$stop" ] && break
    clock
done
clock
out "end $up $stop"
say "$samples samples"
