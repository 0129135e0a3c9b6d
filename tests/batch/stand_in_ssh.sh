#!/bin/bash
# Stands in for ssh in the batch test: "stand_in_ssh.sh [options] host command"
# runs the command here, as ssh would on the host, in the host's own folder
# $HOSTS_ROOT/host (its home), so that files sent to a host and brought back
# really travel between folders.
while [ $# -gt 0 ]; do
    case $1 in
    -[lpoiFSJ]) shift 2 ;;
    -*) shift ;;
    *) break ;;
    esac
done
host=$1
shift
[ "${1:-}" = -- ] && shift
mkdir -p "$HOSTS_ROOT/$host" && cd "$HOSTS_ROOT/$host" && HOME=$PWD exec bash -c "$*"
