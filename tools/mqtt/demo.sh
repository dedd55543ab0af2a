#!/bin/bash
# make demo-mqtt: a private broker on a loopback port, a relay that replays
# the demo recording and publishes it, and an edge relay that serves the
# published packets to its own clients.
#   demo.sh BINDIR RECORDING RELAY_PORT EDGE_PORT BROKER_PORT
set -u
bin=$1 recording=$2 relay_port=$3 edge_port=$4 broker_port=$5
here=$(cd "$(dirname "$0")" && pwd)
. "$here/loopback_broker.sh"
dir=$(mktemp -d /tmp/korbrdv-demo-mqtt.XXXXXX)
pids=()
finish() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null; done
  broker_stop
  rm -rf "$dir"
}
trap finish EXIT
trap 'exit 0' INT TERM

broker_start "$dir" "$broker_port" || exit 1
# -addr= names a loopback port where no device listens: the relays never reach out.
"$bin/KorbRdv_streamer" -e -n KorbRdv.demo -p "$relay_port" -nofile -file="$recording" \
  -addr=127.0.0.1:9 -mqtt=127.0.0.1:"$broker_port" &
pids+=($!)
"$bin/KorbRdv_streamer" -e -n KorbRdv.demo-edge -p "$edge_port" -nofile -addr=127.0.0.1:9 \
  -mqtt-sub=127.0.0.1:"$broker_port"/korbrdv/KorbRdv.demo/rdv &
pids+=($!)
cat <<TEXT

  KorbRdv_streamer MQTT demo
  broker (private, loopback)  : 127.0.0.1:$broker_port   topics korbrdv/KorbRdv.demo/{rdv,state,stats}
  publishing relay            : ws://localhost:$relay_port   viewer http://localhost:$relay_port/
  edge relay                  : ws://localhost:$edge_port   viewer http://localhost:$edge_port/
  health                      : mosquitto_sub -h 127.0.0.1 -p $broker_port -t 'korbrdv/+/stats' -v
  (Ctrl-C stops all three)

TEXT
wait -n "${pids[@]}"
