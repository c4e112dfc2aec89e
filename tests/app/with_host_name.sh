#!/bin/sh
# usage: with_host_name.sh NAME PROGRAM [ARGS...]
# Runs PROGRAM in a UTS namespace of its own whose host name is NAME. Needs root; exits 77
# (ctest's skip) where no such namespace can be made.
name=$1; shift
unshare --uts true 2>/dev/null || { echo "with_host_name: no UTS namespace here; skipped"; exit 77; }
exec unshare --uts sh -c 'hostname "$0" && exec "$@"' "$name" "$@"
