#!/usr/bin/env bash
# Sets Veldspar's background service up as a systemd user unit, or takes it down again.
#
#   ManageService.command enable|disable|stop|remove
#
#   enable   install (or refresh) the service from this bundle, write its unit, start it at
#            login and (re)start it now, waiting until the service says it is ready; once it
#            runs, units of the earlier labels are taken down. If systemd refuses or the
#            service does not start, the unit is withdrawn again and the earlier ones stay
#   disable  stop the service and remove its unit, so it no longer starts at login, under this
#            label and the earlier ones
#   stop     stop the running service, under this label and the earlier ones; it still starts
#            at the next login
#   remove   take the service down under every label and delete the installed executable;
#            succeeds when nothing is left to remove, with or without systemd, and whether or
#            not a user manager answers
#
# The unit file exists exactly while the service is set up to start at login: the app reads
# that as "Configured to start at login". Every failure prints one line saying what failed and
# exits non-zero; when the service does not start, the last lines of its journal follow.
# config.json is never touched.
set -euo pipefail

label=org.kestrum.Veldspar
legacy_labels=(org.kestrum.veldspar org.kestrum.palisade)
all_labels=("$label" "${legacy_labels[@]}")
started_at=0 # when the last start was asked for, in seconds since the epoch

# The one line that says what failed; any further arguments are lines that explain it.
fail() {
  printf 'Veldspar service: %s\n' "$1"
  if [ "$#" -gt 1 ]; then
    printf '%s\n' "${@:2}"
  fi
  exit 1
}

if [ -z "${HOME:-}" ]; then
  fail "HOME is not set, so the service's files cannot be found"
fi

resources=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
bundled="$resources/Veldspar"
support="$HOME/.local/share/Veldspar"
installed="$support/Veldspar"
units="$HOME/.config/systemd/user"

unit_file() {
  printf '%s/%s.service' "$units" "$1"
}

# Runs "systemctl --user …"; a failure becomes one line naming the command and what it said,
# and for a start, the journal's last lines: systemd's words alone rarely say why.
user_systemctl() {
  local said details=()
  if ! said=$(systemctl --user "$@" 2>&1); then
    said=${said//$'\n'/ }
    if [ "$1" = start ] || [ "$1" = restart ]; then
      mapfile -t details < <(journal_tail "$2")
    fi
    fail "systemctl --user $* failed: ${said:-no reason given}" "${details[@]}"
  fi
}

# The unit's last journal lines since this start (an earlier run's lines would only mislead),
# indented; bounded in lines, width and time.
journal_tail() {
  local said line
  said=$(timeout 10 journalctl --user -u "$1" --since "@$started_at" -n 10 --no-pager -q -o cat 2>&1) || true
  if [ -z "${said//[[:space:]]/}" ]; then
    printf 'The journal has nothing from %s.\n' "$1"
    return
  fi
  printf 'Its journal ends with:\n'
  while IFS= read -r line; do
    printf '  %s\n' "${line:0:300}"
  done < <(printf '%s\n' "$said" | tail -n 10)
}

# Whether systemd knows the label now. Without a unit file and without an answer from systemd
# there is nothing of ours to take down.
unit_loaded() {
  local state
  if ! state=$(systemctl --user show --property=LoadState --value "$1.service" 2>&1); then
    if [ -e "$(unit_file "$1")" ]; then
      fail "cannot ask systemd about $1.service: ${state//$'\n'/ }"
    fi
    return 1
  fi
  [ "$state" != "not-found" ]
}

# Stops and disables a label's unit and deletes its file; true when something was taken down.
take_down() {
  local name=$1 file changed=1
  file=$(unit_file "$name")
  if unit_loaded "$name"; then
    user_systemctl stop "$name.service"
    changed=0
  fi
  if [ -e "$file" ]; then
    user_systemctl disable "$name.service"
    rm -f -- "$file" || fail "cannot delete $file"
    changed=0
  fi
  return "$changed"
}

# A path inside a unit's command line: quoted, with systemd's own specials escaped.
unit_quote() {
  local text=$1
  text=${text//\\/\\\\}
  text=${text//\"/\\\"}
  text=${text//%/%%}
  text=${text//\$/\$\$}
  printf '"%s"' "$text"
}

# Writes a file all at once, so a crash never leaves half of it.
write_atomically() {
  local target=$1 temporary
  temporary=$(mktemp "$target.XXXXXX") || fail "cannot write in $(dirname "$target")"
  if ! cat > "$temporary" || ! mv -f -- "$temporary" "$target"; then
    rm -f -- "$temporary"
    fail "cannot write $target"
  fi
}

install_service() {
  if [ ! -f "$bundled" ] || [ ! -x "$bundled" ]; then
    fail "the app's service executable is missing: $bundled"
  fi
  mkdir -p -- "$support" || fail "cannot create $support"
  local temporary
  temporary=$(mktemp "$installed.XXXXXX") || fail "cannot write in $support"
  # A running service keeps its old file; the rename only swaps the name.
  if ! cp -- "$bundled" "$temporary" || ! chmod 755 -- "$temporary" || ! mv -f -- "$temporary" "$installed"; then
    rm -f -- "$temporary"
    fail "cannot install the service as $installed"
  fi
}

write_unit() {
  mkdir -p -- "$units" || fail "cannot create $units"
  write_atomically "$(unit_file "$label")" <<UNIT
[Unit]
Description=Veldspar: makes remote FlexRadios discoverable on the local network
StartLimitIntervalSec=60
StartLimitBurst=5

[Service]
Type=notify
NotifyAccess=main
ExecStart=$(unit_quote "$installed") --config $(unit_quote "$support/config.json")
TimeoutStartSec=30
Restart=on-failure
RestartSec=3

[Install]
WantedBy=default.target
UNIT
}

# After a refused enable nothing may look set up: a unit file left behind reads as "Configured
# to start at login" while nothing starts, and a service that failed its start would be
# restarted. Quietly, so that the refusal stays what is said.
withdraw_unit() {
  systemctl --user stop "$label.service" > /dev/null 2>&1 || true
  systemctl --user disable "$label.service" > /dev/null 2>&1 || true
  rm -f -- "$(unit_file "$label")"
  systemctl --user daemon-reload > /dev/null 2>&1 || true
}

enable() {
  local old changed=1
  install_service
  write_unit
  # In a subshell, so that a refusal (which exits) comes back here to withdraw the unit. The
  # unit is Type=notify: restart returns once the service is ready, and fails when it is not.
  if ! (
    user_systemctl daemon-reload
    user_systemctl enable "$label.service"
    # A deliberate start is not part of a crash loop: it gets the whole start limit.
    systemctl --user reset-failed "$label.service" > /dev/null 2>&1 || true
    started_at=$(date +%s)
    user_systemctl restart "$label.service"
  ); then
    withdraw_unit
    exit 1
  fi
  # Only now: had the new unit been refused, the earlier one would still be serving.
  for old in "${legacy_labels[@]}"; do
    if take_down "$old"; then
      changed=0
    fi
  done
  if [ "$changed" -eq 0 ]; then
    user_systemctl daemon-reload
  fi
}

# A service set up by an earlier version still runs under its old label until taken down.
disable() {
  local name
  for name in "${all_labels[@]}"; do
    take_down "$name" || true
  done
  user_systemctl daemon-reload
}

stop() {
  local name
  for name in "${all_labels[@]}"; do
    if unit_loaded "$name"; then
      user_systemctl stop "$name.service"
    fi
  done
}

# Without a user manager no unit can be loaded or running: what is left are files, and
# deleting them (with the links that enabling made) is all that removing means.
remove_unit_files() {
  local name link
  for name in "${all_labels[@]}"; do
    for link in "$units"/*.wants/"$name.service"; do
      if [ -L "$link" ] || [ -e "$link" ]; then
        rm -f -- "$link" || fail "cannot delete $link"
      fi
    done
    rm -f -- "$(unit_file "$name")" || fail "cannot delete $(unit_file "$name")"
  done
}

remove() {
  local name changed=1
  # A manager that does not answer (no user session) runs nothing of ours; asking each label
  # would only fail, and uninstalling must still be possible.
  if have_systemctl && systemctl --user show --property=LoadState "$label.service" > /dev/null 2>&1; then
    for name in "${all_labels[@]}"; do
      if take_down "$name"; then
        changed=0
      fi
    done
  fi
  remove_unit_files
  if [ -e "$installed" ]; then
    rm -f -- "$installed" || fail "cannot delete $installed"
  fi
  if [ "$changed" -eq 0 ]; then
    user_systemctl daemon-reload
  fi
}

have_systemctl() {
  command -v systemctl > /dev/null 2>&1
}

need_systemctl() {
  have_systemctl || fail "systemctl was not found; the service needs systemd"
}

case "${1:-}" in
  enable) need_systemctl; enable ;;
  disable) need_systemctl; disable ;;
  stop) need_systemctl; stop ;;
  remove) remove ;;
  *) fail "unknown action '${1:-}'; use enable, disable, stop or remove" ;;
esac
