#!/usr/bin/env bash
# The whole way of a video on this machine: camera, agent, cloud, player.
#
#   scripts/demo.sh [RTSP-URL]          run until Ctrl-C; with a URL that camera is used
#   scripts/demo.sh --check [RTSP-URL]  play some seconds, compare them with the camera, exit 0 or 1
#
# Needs root only to install packages that are missing. Everything listens on 127.0.0.1,
# except the agent's pages: port 8282 of all addresses.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
. scripts/packages.sh

agent=build/release/camera-agent
simulators=tools/simulators
python=/usr/bin/python3          # the GStreamer bindings belong to the system's interpreter
cloud_id=demo-cloud-id-0001
player_url=rtsp://127.0.0.1:8554/$cloud_id/1
page_url=http://127.0.0.1:8282/
camera_url=rtsp://127.0.0.1:5540/stream
start_seconds=30                 # for each program to become ready; a cold plug-in scan takes 4 s
camera_seconds=5                 # until it is said why the camera may not answer
frames=75                        # played by --check: 5 s at 15 frames a second
first_frame_seconds=15

work=
names=() pids=()                 # the programs started, in order

main() {
    local check=no own_camera=yes
    if [[ ${1:-} == --check ]]; then check=yes; shift; fi
    case "$#${1:-}" in
        1-h | 1--help) show_usage; exit 0 ;;
        0 | 1[!-]*) ;;
        *) show_usage >&2; exit 1 ;;
    esac
    if [[ $# == 1 ]]; then own_camera=no; camera_url=$1; fi

    trap stop_all EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    work=$(mktemp -d)
    prepare "$own_camera"
    local began=$EPOCHREALTIME
    start_all "$own_camera"
    wait_for_camera "$check"
    if [[ $check == yes ]]; then
        check_video "$own_camera" "${began/,/.}"
    else
        show_log
    fi
}

show_usage() {
    sed -n '2,8s/^# \{0,1\}//p' "$0"
}

prepare() {
    local packages=(python3 ffmpeg)
    if [[ $1 == yes ]]; then
        packages+=(gir1.2-gst-rtsp-server-1.0 python3-gi gstreamer1.0-plugins-base
                   gstreamer1.0-plugins-good gstreamer1.0-plugins-bad)
    fi
    if agent_is_current; then
        ensure_packages "${packages[@]}"
        return
    fi
    ensure_packages "${packages[@]}" cmake ninja-build g++
    echo "building the agent ..."
    if ! { cmake --preset release && cmake --build --preset release; } >"$work/build" 2>&1; then
        tail -n 30 "$work/build" >&2
        fail "the agent does not build"
    fi
}

agent_is_current() {
    [[ -x $agent && -x $agent-check && -z $(find CMakeLists.txt CMakePresets.json cmake src -type f \
                              -newer "$agent" -print -quit) ]]
}

start_all() {
    local port ports=(8111 8112 8282 8554)
    if [[ $1 == yes ]]; then ports+=(5540); fi
    for port in "${ports[@]}"; do
        # A connection that succeeds means that another program listens there.
        if (: <"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
            fail "port $port is taken: end the program that listens there"
        fi
    done
    if [[ $1 == yes ]]; then start camera "$python" $simulators/camera.py --port 5540; fi
    start cloud "$python" $simulators/cloud.py --cloud-id "$cloud_id"
    if [[ $1 == yes ]]; then wait_for camera '^ready'; fi
    wait_for cloud '^ready'
    start agent "$agent" -d -l -c "$work" -v Demo -m Cam1 -s "$camera_url" -p 8282
}

# start NAME COMMAND...: runs it in the background with its output in $work/NAME.log
start() {
    local name=$1
    shift
    : >"$work/$name.log"
    "$@" >>"$work/$name.log" 2>&1 </dev/null &
    names+=("$name")
    pids+=($!)
}

# appears NAME PATTERN SECONDS: whether a line of the log of NAME matches within that time
appears() {
    local deadline=$((SECONDS + $3))
    until grep -Eq -- "$2" "$work/$1.log"; do
        all_alive
        if ((SECONDS >= deadline)); then return 1; fi
        sleep 0.1
    done
}

# wait_for NAME PATTERN: as above, and its absence ends the demo
wait_for() {
    if ! appears "$1" "$2" $start_seconds; then
        show_tails
        fail "no \"$2\" from the $1 within $start_seconds s"
    fi
}

# A stream whose probe fails is silent in the log of the agent: only its registration is missing.
wait_for_camera() {
    local registered="registered $cloud_id/1 " place=${camera_url#*://}
    if appears cloud "$registered" $camera_seconds; then return; fi
    echo "demo: the camera at ${place##*@} does not answer the agent as it must:" >&2
    "$agent-check" --connect -c "$work" -v Demo -m Cam1 -s "$camera_url" |
        grep -E '^  (warning|error) +stream' >&2 || true
    echo "The agent goes on asking, at least every 12 s; the demo goes on when the camera answers." >&2
    until appears cloud "$registered" $((start_seconds - camera_seconds)); do
        if [[ $1 == yes ]]; then fail "the camera did not answer within $start_seconds s"; fi
    done
}

all_alive() {
    local i
    for i in "${!pids[@]}"; do
        if ! kill -0 "${pids[i]}" 2>/dev/null; then
            local status=0
            wait "${pids[i]}" || status=$?
            show_tails
            fail "the ${names[i]} ended with status $status"
        fi
    done
}

show_log() {
    echo "player:  ffplay -rtsp_transport tcp $player_url"
    echo "browser: $page_url"
    echo "account: http://127.0.0.1:8112/cameras lists what the pages have added"
    echo "Ctrl-C ends the demo. What the cloud sees, and the log of the agent:"
    tail -q -n +1 -f "$work/cloud.log" "$work/agent.log" &
    names=("log" "${names[@]}") pids=($! "${pids[@]}")   # ends last, to show the agent's stop
    while all_alive; do sleep 0.5; done
}

check_video() {
    local live=() status=0
    if [[ $1 == no ]]; then live=(--live); fi
    "$python" $simulators/compare_play.py "$camera_url" "$player_url" --frames $frames \
        --since "$2" --within $first_frame_seconds "${live[@]}" || status=1
    all_alive
    wait_for cloud 'relay ended'
    local bytes
    bytes=$(sed -n 's/.* relay ended by .*: \([0-9]*\) bytes from the camera.*/\1/p' \
                "$work/cloud.log" | tail -n 1)
    echo "$bytes bytes of the camera went through the agent"
    if ((bytes < 10000)); then
        echo "FAILED: that is no video" >&2
        status=1
    fi
    if ((status)); then show_tails; fi
    exit $status
}

show_tails() {
    local name
    for name in "${names[@]}"; do
        [[ -s $work/$name.log ]] || continue
        echo "--- last lines of the $name:" >&2
        tail -n 12 "$work/$name.log" >&2
    done
}

fail() {
    echo "demo: $1" >&2
    exit 1
}

# Ends what was started, the latest first, and waits for it; 10 s later it is not asked any more.
stop_all() {
    trap '' INT TERM
    local i pid deadline
    for ((i = ${#pids[@]} - 1; i >= 0; i--)); do
        pid=${pids[i]}
        kill "$pid" 2>/dev/null || continue
        deadline=$((SECONDS + 10))
        while kill -0 "$pid" 2>/dev/null && ((SECONDS < deadline)); do sleep 0.05; done
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    if [[ -n $work ]]; then rm -rf "$work"; fi
}

main "$@"
