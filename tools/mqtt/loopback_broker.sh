# A private mosquitto for the demo and the benchmarks, sourced by their
# scripts: 127.0.0.1 only, anonymous clients, nothing kept on disk, a
# configuration in a throwaway directory. Ended by its PID.
#
#   broker_start DIR PORT   starts it, sets BROKER_PID, waits for the port
#   broker_stop             ends it

broker_binary() {
  command -v mosquitto 2>/dev/null || { [ -x /usr/sbin/mosquitto ] && echo /usr/sbin/mosquitto; }
}

broker_start() {
  local dir=$1 port=$2 bin
  bin=$(broker_binary) || { echo "mosquitto is not installed (apt-get install mosquitto; make deps tries)" >&2; return 1; }
  printf 'listener %s 127.0.0.1\nallow_anonymous true\npersistence false\n' "$port" > "$dir/broker.conf"
  "$bin" -c "$dir/broker.conf" > "$dir/broker.log" 2>&1 &
  BROKER_PID=$!
  local i
  for i in $(seq 50); do
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && return 0
    kill -0 "$BROKER_PID" 2>/dev/null || break
    sleep 0.1
  done
  echo "mosquitto did not listen on 127.0.0.1:$port:" >&2
  cat "$dir/broker.log" >&2
  return 1
}

broker_stop() {
  [ -n "$BROKER_PID" ] && kill "$BROKER_PID" 2>/dev/null && wait "$BROKER_PID" 2>/dev/null
  BROKER_PID=
}
