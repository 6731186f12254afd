#!/usr/bin/env bash
# nginx for test programs that cannot start it themselves (the Windows tests, under Wine): one
# nginx on 127.0.0.1 on a free port, serving DIR/www, configured as NginxHarness configures its
# own, with the access log in DIR/access.log, and the same files over HTTPS on a second port with
# a self-signed certificate for "localhost" (DIR/cert.pem). CTest starts and stops it as a
# fixture; scripts/test-windows.sh uses it for the host program.
#   nginx-fixture.sh start DIR [server directives]    DIR/port and DIR/tls_port then hold the ports
#   nginx-fixture.sh stop DIR
set -euo pipefail
command=${1:?start or stop}
dir=$(realpath -m "${2:?directory}")
nginx=/usr/sbin/nginx

stop() {
  [ -f "$dir/nginx.pid" ] || return 0
  local pid
  pid=$(cat "$dir/nginx.pid")
  kill "$pid" 2>/dev/null || true
  for _ in $(seq 100); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.05
  done
  rm -f "$dir/nginx.pid" "$dir/port" "$dir/tls_port"
}

case $command in
  stop)
    stop
    exit 0
    ;;
  start) ;;
  *)
    echo "usage: $0 start|stop DIR [server directives]" >&2
    exit 2
    ;;
esac

stop
mkdir -p "$dir/www" "$dir/tmp"
user=
[ "$(id -u)" -ne 0 ] || user="user root;"
# An EC key is made in milliseconds. The certificate names localhost alone: a request that names
# the server by its address is one the certificate does not match.
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
  -subj /CN=localhost -addext subjectAltName=DNS:localhost \
  -keyout "$dir/key.pem" -out "$dir/cert.pem" >/dev/null 2>&1
# nginx binds before it goes to the background and exits non-zero when the port is taken: try
# another then.
for _ in $(seq 20); do
  port=$((20000 + RANDOM % 40000))
  tls_port=$((20000 + RANDOM % 40000))
  [ "$tls_port" -ne "$port" ] || continue
  cat >"$dir/nginx.conf" <<EOF
daemon on;
master_process off;
$user
worker_processes 1;
error_log $dir/error.log warn;
pid $dir/nginx.pid;
events { worker_connections 256; }
http {
  access_log $dir/access.log;
  client_body_temp_path $dir/tmp/client_body;
  proxy_temp_path $dir/tmp/proxy;
  fastcgi_temp_path $dir/tmp/fastcgi;
  uwsgi_temp_path $dir/tmp/uwsgi;
  scgi_temp_path $dir/tmp/scgi;
  types { text/plain txt; text/html html; application/octet-stream bin; }
  default_type application/octet-stream;
  sendfile on;
  keepalive_requests 100000;
  keepalive_timeout 60s;
  server {
    listen 127.0.0.1:$port;
    listen 127.0.0.1:$tls_port ssl;
    ssl_certificate $dir/cert.pem;
    ssl_certificate_key $dir/key.pem;
    server_name localhost;
    root $dir/www;
    location / { }
    ${3:-}
  }
}
EOF
  if "$nginx" -p "$dir" -e "$dir/error.log" -c "$dir/nginx.conf" </dev/null >/dev/null 2>&1; then
    # The pid file is written by the process that went to the background.
    for _ in $(seq 100); do
      [ -s "$dir/nginx.pid" ] && break
      sleep 0.05
    done
    echo "$tls_port" >"$dir/tls_port"
    echo "$port" >"$dir/port"
    exit 0
  fi
done
echo "nginx-fixture: nginx did not start:" >&2
tail -5 "$dir/error.log" >&2
exit 1
