#!/bin/sh
# Asks tavlo: prints the body of the answer; when it is an error, its status and reason on standard
# error, with exit status 1. Without an answer it says why, with exit status 2.
#
# Usage: tavlo.sh METHOD PATH [BODY]
# In the environment:
#   TAVLO_URL          http://ROUTER:60278 or https://ROUTER:60279
#   TAVLO_KEY          the pairing key; only for https
#   TAVLO_CERTIFICATE  the file with the router's certificate; only for https
set -eu

if [ $# -lt 2 ] || [ $# -gt 3 ]; then
  echo "usage: tavlo.sh METHOD PATH [BODY]" >&2
  exit 2
fi
method=$1
url=${TAVLO_URL:?}$2
set -- ${3+--data-raw "$3"}

case $url in
  https:*)
    # The key comes on standard input: the arguments of a process are no secret.
    set -- "$@" --cacert "${TAVLO_CERTIFICATE:?}"
    header="PairingKey: ${TAVLO_KEY:?}"
    ;;
  *) header= ;;
esac

files=$(mktemp -d)
trap 'rm -rf "$files"' EXIT
trap 'exit 2' HUP INT TERM
printf '%s' "$header" | curl --silent --show-error --globoff --path-as-is --max-time 70 \
  --request "$method" --header @- \
  --header "Expect:" --dump-header "$files/head" --output "$files/body" "$@" "$url" || exit 2

IFS=' ' read -r _ status reason <"$files/head"
case $status in
  2*) [ ! -e "$files/body" ] || cat "$files/body" ;;
  *)
    printf '%s %s\n' "$status" "$(printf '%s' "$reason" | tr -d '\r')" >&2
    exit 1
    ;;
esac
