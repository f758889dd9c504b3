#!/usr/bin/env bash
# Manages the Wine prefix of one test run or tool run.
#   wine-prefix.sh create PREFIX [PRISTINE]
#                                  make PREFIX anew (from a cached pristine copy,
#                                  PRISTINE or PREFIX.pristine, made when there is
#                                  none) and start its
#                                  wineserver in persistent mode, so that the
#                                  many short Wine processes of a run do not pay
#                                  the server start-up each time
#   wine-prefix.sh stop PREFIX     end that prefix's wineserver (and with it every
#                                  Wine process of the prefix), then wait for it
# Only the given prefix is touched; nothing is ended by name.
set -euo pipefail
cmd=${1:?usage: wine-prefix.sh create|stop PREFIX}
prefix=${2:?usage: wine-prefix.sh create|stop PREFIX}
case "$prefix" in /*) ;; *) prefix=$(pwd)/$prefix ;; esac
export WINEPREFIX=$prefix WINEDEBUG=-all WINEARCH=win64
pristine=${3:-$prefix.pristine}

case "$cmd" in
  create)
    if [ -d "$prefix" ]; then
      wineserver -k 2>/dev/null || true
      wineserver -w 2>/dev/null || true
      rm -rf "$prefix"
    fi
    if [ ! -f "$pristine/system.reg" ]; then
      echo "wine-prefix: creating a pristine prefix in $pristine (once, about 10 s)"
      rm -rf "$pristine"; mkdir -p "$pristine"
      # No Mono/Gecko installer dialogs: nothing here needs them.
      WINEPREFIX=$pristine WINEDLLOVERRIDES="mscoree,mshtml=" wineboot -i >/dev/null 2>&1
      WINEPREFIX=$pristine wineserver -w
    fi
    mkdir -p "$(dirname "$prefix")"
    cp -a "$pristine" "$prefix"
    # Detached from our stdio: ctest waits for every holder of its pipes.
    wineserver -p </dev/null >/dev/null 2>&1
    # Touch the prefix once so the server has finished loading the registry.
    wine cmd /c exit 0 </dev/null >/dev/null 2>&1 || true
    echo "wine-prefix: $prefix ready"
    ;;
  stop)
    if [ -d "$prefix" ]; then
      wineserver -k 2>/dev/null || true
      wineserver -w 2>/dev/null || true
    fi
    ;;
  *) echo "wine-prefix: unknown command $cmd" >&2; exit 2 ;;
esac
