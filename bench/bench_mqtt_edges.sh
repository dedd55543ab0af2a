#!/bin/bash
# Many viewers through a broker, on loopback: one publishing relay, one
# private mosquitto, EDGES edge relays with N WebSocket clients each
# (wsswarm, "ims:IMS" sent first), against one relay with EDGES x N clients
# fed the same way, in the same run. Prints delivered MB/s per relay, the
# clients' latency from the device stamp (counterA) and the CPU of the
# broker and of every relay over the window.
#
#   bench/bench_mqtt_edges.sh [BUILD_DIR]
#   env: PERF=/tmp/perf (wsswarm, devblast)  EDGES=4 N=100 IMS=20 W=2 D=8
#        FEEDS="file tcp"  BASE=39300 (ports BASE..BASE+9)
#
# Feeds: "file" replays a recording of full-size kind-2 frames (104 KB,
# 2 ms apart: devblast file -c 13000 -m 2); its stamps are those of the
# recording, so no latency is shown for it. "tcp" is devblast as a TCP
# device sending the same frames, 500 a second, each stamped just before it
# is written: the latency rows come from it.
set -u
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
relay_bin=$build/bin/KorbRdv_streamer
PERF=${PERF:-/tmp/perf}
EDGES=${EDGES:-4} N=${N:-100} IMS=${IMS:-20} W=${W:-2} D=${D:-8}
FEEDS=${FEEDS:-"file tcp"} BASE=${BASE:-39300}
for tool in "$PERF/wsswarm" "$PERF/devblast" "$relay_bin"; do
  [ -x "$tool" ] || { echo "bench: $tool is missing (PERF=DIR with wsswarm and devblast; build first)" >&2; exit 2; }
done
. "$root/tools/mqtt/loopback_broker.sh"

dir=$(mktemp -d /tmp/korbrdv-bench-mqtt.XXXXXX)
pids=()
stop_all() {
  local p
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null; done
  pids=()
  broker_stop
}
trap 'stop_all' EXIT
trap 'exit 130' INT TERM

broker_port=$BASE pub_port=$((BASE + 1)) single_port=$((BASE + 6)) dev_port=$((BASE + 7))
no_device=127.0.0.1:$((BASE + 9)) # nothing listens there: the relays never reach out
recording=$dir/recording.rdv
"$PERF/devblast" file -o "$recording" -c 13000 -m 2 > "$dir/devblast_file.log" || exit 2

# relay NAME PORT ARGS...: one relay in the foreground mode, its PID in $last
relay() {
  local name=$1 port=$2
  shift 2
  "$relay_bin" -e -n "$name" -p "$port" -nofile -ld "$dir/logs" "$@" > "$dir/$name.out" 2>&1 &
  last=$!
  pids+=("$last")
  local i
  for i in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && return 0
    sleep 0.1
  done
  echo "bench: relay $name did not listen on $port" >&2
  return 1
}

# The device for a feed, as the relay's arguments in $dev_args: the
# recording, or devblast listening for the relay.
device() {
  if [ "$1" = file ]; then
    dev_args="-file=$recording -addr=$no_device"
  else
    timeout -k 2 $((W + D + 30)) "$PERF/devblast" tcp -l "$dev_port" -c 13000 -r 500 -d $((W + D + 15)) -w 20 \
      > "$dir/devblast_tcp_$2.log" 2>&1 &
    pids+=($!)
    sleep 0.3
    dev_args="-addr=127.0.0.1:$dev_port"
  fi
}

cpu_of() { awk -v t="$(getconf CLK_TCK)" '{ sub(/.*\) /, ""); print ($12 + $13) / t }' "/proc/$1/stat" 2>/dev/null || echo 0; }
field() { sed -n "s/.*[ ]$1=\([^ ]*\).*/\1/p" <<< " $2" | head -n1; }

# window PID... : after the warm-up, the CPU of each PID over the window,
# in % of one core, as cpu[0], cpu[1], ...
cpu=()
window() {
  local -a watched=("$@") before=()
  local i
  sleep "$W"
  for i in "${!watched[@]}"; do before[$i]=$(cpu_of "${watched[$i]}"); done
  sleep "$D"
  for i in "${!watched[@]}"; do
    cpu[$i]=$(awk -v a="${before[$i]}" -v b="$(cpu_of "${watched[$i]}")" -v d="$D" 'BEGIN { printf "%.0f", (b - a) / d * 100 }')
  done
}

rows=()
# row FEED TOPOLOGY RELAY LOGFILE CPU
row() {
  local r
  r=$(grep '^RESULT' "$4" | tail -n1)
  local p50=n/a p99=n/a
  if [ "$1" = tcp ]; then
    p50=$(awk -v v="$(field lat_p50_us "$r")" 'BEGIN { printf "%.1f", v / 1000 }')
    p99=$(awk -v v="$(field lat_p99_us "$r")" 'BEGIN { printf "%.1f", v / 1000 }')
  fi
  rows+=("$(printf '%-5s %-14s %-10s %5s/%-5s %8.1f %8.1f %9s %9s %6s %8s' "$1" "$2" "$3" \
    "$(field open "$r")" "$(field n "$r")" "$(field mbps "$r")" "$(field mps_med "$r")" "$p50" "$p99" "$5" \
    "$(field client_cpu_pct "$r")")")
}

run_edges() {
  local feed=$1 i
  broker_start "$dir" "$broker_port" || exit 1
  device "$feed" edges
  relay bench-pub "$pub_port" $dev_args -interval_ms="$IMS" -mqtt=127.0.0.1:"$broker_port" || exit 1
  local pub=$last
  local -a edge_pids=()
  for i in $(seq "$EDGES"); do
    relay "bench-edge$i" $((pub_port + i)) -addr="$no_device" -interval_ms="$IMS" \
      -mqtt-sub=127.0.0.1:"$broker_port"/korbrdv/bench-pub/rdv || exit 1
    edge_pids+=("$last")
  done
  sleep 2 # the links come up
  local -a swarms=()
  for i in $(seq "$EDGES"); do
    timeout -k 2 $((W + D + 20)) "$PERF/wsswarm" -p $((pub_port + i)) -n "$N" -m "ims:$IMS" -w "$W" -d "$D" -t 10 -q \
      > "$dir/swarm_${feed}_edge$i.log" 2>&1 &
    swarms+=($!)
  done
  window "$BROKER_PID" "$pub" "${edge_pids[@]}"
  wait "${swarms[@]}"
  local total=0
  for i in $(seq "$EDGES"); do
    row "$feed" "broker+edges" "edge $i" "$dir/swarm_${feed}_edge$i.log" "${cpu[$((i + 1))]}"
    total=$(awk -v a="$total" -v b="$(field mbps "$(grep '^RESULT' "$dir/swarm_${feed}_edge$i.log")")" 'BEGIN { print a + b }')
  done
  rows+=("$(printf '%-5s %-14s %-10s %11s %8.1f %8s %9s %9s %6s' "$feed" "broker+edges" "all edges" "" "$total" "" "" "" "")")
  rows+=("$(printf '%-5s %-14s %-10s %11s %8s %8s %9s %9s %6s' "$feed" "broker+edges" "publisher" "0" "" "" "" "" "${cpu[1]}")")
  rows+=("$(printf '%-5s %-14s %-10s %11s %8s %8s %9s %9s %6s' "$feed" "broker+edges" "broker" "" "" "" "" "" "${cpu[0]}")")
  stop_all
}

run_single() {
  local feed=$1
  device "$feed" single
  relay bench-single "$single_port" $dev_args -interval_ms="$IMS" || exit 1
  local single=$last
  timeout -k 2 $((W + D + 30)) "$PERF/wsswarm" -p "$single_port" -n $((EDGES * N)) -m "ims:$IMS" -w "$W" -d "$D" \
    -t 15 -q > "$dir/swarm_${feed}_single.log" 2>&1 &
  local swarm=$!
  window "$single"
  wait "$swarm"
  row "$feed" "one relay" "relay" "$dir/swarm_${feed}_single.log" "${cpu[0]}"
  stop_all
}

echo "bench_mqtt_edges: $EDGES edges x $N clients vs one relay x $((EDGES * N)), ims:$IMS, warm-up ${W}s, window ${D}s; logs in $dir"
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) CPUs"
for feed in $FEEDS; do
  run_edges "$feed"
  run_single "$feed"
done
echo "load after:  $(cut -d' ' -f1-3 /proc/loadavg)"
echo
echo "MB = 1e6 bytes of packets delivered to the relay's reading clients; msg/s = median per client;"
echo "latency = client receipt - device stamp (tcp feed only); CPU = % of one core over the window,"
echo "of the relay (or broker) and of the wsswarm process reading from it"
printf '%-5s %-14s %-10s %11s %8s %8s %9s %9s %6s %8s\n' feed topology relay open/n "MB/s" "msg/s" "p50 ms" "p99 ms" \
  "CPU%" "cli CPU%"
for r in "${rows[@]}"; do echo "$r"; done
