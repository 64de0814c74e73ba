#!/usr/bin/env bash
# The PHP processing site: uploadFile.php and pushJob.php served by an Apache instance of its own
# (Debian's apache2 and libapache2-mod-php) on a free port of 127.0.0.1 (or of --listen ADDR, an
# address of a network namespace the caller made, say). Its configuration, pid
# file, logs, storage/ and jobs.jsonl live in the --root folder; the system's Apache is untouched.
#
#   php-site.sh --root DIR [--listen ADDR] [--post-max-size SIZE] [--upload-max-filesize SIZE]
#               [--limit-request-body BYTES] [--job-status CODE] [--answer-line-break]
#               [--answer notice|html-notice|html|long]
#               [--cert PEM --key KEY] [--watch-stdin]
#
# Prints the port once Apache answers, then serves until SIGTERM or SIGINT (with --watch-stdin
# also until standard input closes) and stops Apache by its own pid file. PHP's defaults stand
# for the limits that are not given: post_max_size 8M, upload_max_filesize 2M. --answer bends
# uploadFile.php's answer as real sites do: notice (display_errors on: PHP's warning about the
# script's own slip comes before the name), html-notice (the same with html_errors on), html (a
# page instead of the name), long (64 MiB after the name).
set -euo pipefail
scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
export DX_POST_MAX_SIZE=8M DX_UPLOAD_MAX_FILESIZE=2M DX_LIMIT_REQUEST_BODY=0 DX_JOB_STATUS=0 \
    DX_LINE_BREAK=0 DX_ANSWER=name DX_DISPLAY_ERRORS=off DX_HTML_ERRORS=off DX_ADDRESS=127.0.0.1
root="" cert="" key="" watch=0
while (($#)); do
    case $1 in
    --root) root=$2 ;;
    --listen) DX_ADDRESS=$2 ;;
    --post-max-size) DX_POST_MAX_SIZE=$2 ;;
    --upload-max-filesize) DX_UPLOAD_MAX_FILESIZE=$2 ;;
    --limit-request-body) DX_LIMIT_REQUEST_BODY=$2 ;;
    --job-status) DX_JOB_STATUS=$2 ;;
    --answer) DX_ANSWER=$2 ;;
    --cert) cert=$2 ;;
    --key) key=$2 ;;
    --watch-stdin) watch=1 && shift && continue ;;
    --answer-line-break) DX_LINE_BREAK=1 && shift && continue ;;
    *) echo "php-site.sh: unknown argument '$1'" >&2 && exit 2 ;;
    esac
    shift 2
done
[ -n "$root" ] || { echo "php-site.sh: --root DIR is needed" >&2 && exit 2; }
case $DX_ANSWER in
notice) DX_DISPLAY_ERRORS=on ;;
html-notice) DX_DISPLAY_ERRORS=on DX_HTML_ERRORS=on ;;
name | html | long) ;;
*) echo "php-site.sh: --answer is notice, html-notice, html or long" >&2 && exit 2 ;;
esac
mkdir -p "$root/storage" "$root/uploads"
export DX_SITE_ROOT DX_SCRIPTS=$scripts DX_USER DX_GROUP DX_PORT
DX_SITE_ROOT=$(cd "$root" && pwd)
# Apache refuses to serve as root: then the children run as nobody, who must write the folders.
if [ "$(id -u)" -eq 0 ]; then
    DX_USER=nobody DX_GROUP=nogroup
    chmod 0777 "$root/storage" "$root/uploads"
    chmod o+rx "$root"
else
    DX_USER=$(id -un) DX_GROUP=$(id -gn)
fi
touch "$root/jobs.jsonl" && chmod 0666 "$root/jobs.jsonl"
if [ -n "$cert" ]; then
    printf '%s\n' "LoadModule ssl_module /usr/lib/apache2/modules/mod_ssl.so" \
        "LoadModule socache_shmcb_module /usr/lib/apache2/modules/mod_socache_shmcb.so" \
        "SSLEngine on" "SSLCertificateFile \"$cert\"" "SSLCertificateKeyFile \"$key\"" \
        >"$root/tls.conf"
else
    : >"$root/tls.conf"
fi
DX_PORT=$(python3 -c 'import socket, sys; s = socket.socket(); s.bind((sys.argv[1], 0)); print(s.getsockname()[1])' "$DX_ADDRESS")

stop() {
    [ -s "$root/apache.pid" ] && kill "$(cat "$root/apache.pid")" 2>/dev/null || true
    wait 2>/dev/null || true
}
trap stop EXIT
trap 'exit 0' TERM INT
# A session of its own: on stopping, Apache signals its whole process group.
setsid /usr/sbin/apache2 -f "$scripts/apache.conf" -D FOREGROUND &
for _ in $(seq 100); do
    (exec 3<>"/dev/tcp/$DX_ADDRESS/$DX_PORT") 2>/dev/null && break
    sleep 0.1
done
(exec 3<>"/dev/tcp/$DX_ADDRESS/$DX_PORT") 2>/dev/null || {
    echo "php-site.sh: Apache did not start; $root/error.log:" >&2
    tail -n 20 "$root/error.log" >&2 || true
    exit 1
}
echo "$DX_PORT"
if ((watch)); then
    while read -r _; do :; done
else
    wait
fi
