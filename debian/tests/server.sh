# Sourced: serves a file of 8 MiB with nginx, until the script ends. Sets $url and $served.
cd "$AUTOPKGTEST_TMP"
export no_proxy=127.0.0.1
mkdir root
served=$PWD/root/file
head -c 8M /dev/urandom >"$served"
trap 'kill "$(cat nginx.pid)"; cat error.log' EXIT
# nginx returns as soon as it listens, or fails if the port is taken. It is one process, since as
# root its workers would be another user.
for port in $(shuf -n 10 -i 20000-30000); do
  cat >nginx.conf <<END
master_process off; pid nginx.pid; events {}
http {
  client_body_temp_path temp; proxy_temp_path temp; fastcgi_temp_path temp;
  uwsgi_temp_path temp; scgi_temp_path temp;
  access_log access.log;
  server { listen 127.0.0.1:$port; root root; }
}
END
  if PATH=$PATH:/usr/sbin nginx -p "$PWD" -c nginx.conf -e error.log; then
    url=http://127.0.0.1:$port/file
    break
  fi
done
: "${url:?nginx found no free port}"
