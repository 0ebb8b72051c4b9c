#!/usr/bin/env bash
# Stand-in for the service script, scripted through "service.d/" beside it:
#   actions            each action word, one a line (written here)
#   <action>.out       what the action prints (default nothing)
#   <action>.status    its exit status (default 0)
#   hold               when present, wait for the file "release" first
set -u
here=$(cd "$(dirname "$0")" && pwd)
ctl="$here/service.d"
mkdir -p "$ctl"
printf '%s\n' "${1:-}" >> "$ctl/actions"
if [ -e "$ctl/hold" ]; then
  while [ ! -e "$ctl/release" ]; do sleep 0.02; done
fi
[ -e "$ctl/${1:-}.out" ] && cat "$ctl/${1:-}.out"
exit "$(cat "$ctl/${1:-}.status" 2>/dev/null || echo 0)"
