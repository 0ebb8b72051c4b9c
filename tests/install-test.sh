#!/usr/bin/env bash
# The release installer against a built bundle, in temporary home folders:
#
#   install-test.sh PATH/TO/install PATH/TO/Veldspar.app
#
# Each check prints "PASS name" or "FAIL name: why"; the exit status is the number of failures.
set -uo pipefail

installer=${1:?usage: install-test.sh PATH/TO/install PATH/TO/Veldspar.app}
built_bundle=${2:?usage: install-test.sh PATH/TO/install PATH/TO/Veldspar.app}
app_id=org.kestrum.Veldspar.configure
command_timeout=120

scratch=$(mktemp -d "${TMPDIR:-/tmp}/install-test.XXXXXX") || exit 1
trap 'rm -rf -- "$scratch"' EXIT
failures=0

pass() { printf 'PASS %s\n' "$1"; }
fail() {
  printf 'FAIL %s: %s\n' "$1" "$2"
  failures=$((failures + 1))
}

for tool in desktop-file-validate appstreamcli patchelf; do
  command -v "$tool" > /dev/null || { printf 'FAIL %s is missing (scripts/install-deps installs it)\n' "$tool"; exit 1; }
done

# A fresh home folder whose path has spaces, quotes, shell characters and non-ASCII letters.
new_home() {
  local home="$scratch/$1/home of Jörg \"the 'ham'\" \$HOME \`x\` \\ Ærø"
  mkdir -p -- "$home"
  printf '%s' "$home"
}

# Runs the installer with HOME set; its output goes to $scratch/output, its status is returned.
run_install() {
  local home=$1
  shift
  HOME="$home" timeout "$command_timeout" bash "$installer" "$@" > "$scratch/output" 2>&1
}

# Every entry under a folder with its type, size, mode, change time and inode: any write shows.
snapshot() {
  (cd "$1" && find . -printf '%p %y %s %m %C@ %i\n' | LC_ALL=C sort)
}

# A copy of the built bundle with another version in its Info.plist.
bundle_of_version() {
  local copy="$scratch/bundles/$1/Veldspar.app"
  mkdir -p -- "$(dirname -- "$copy")"
  cp -a -- "$built_bundle" "$copy"
  sed -i "/<key>CFBundleVersion<\/key>/{n;s|<string>.*</string>|<string>$1</string>|}" "$copy/Resources/Info.plist"
  printf '%s' "$copy"
}

# --- install twice into a home with an awkward path -------------------------------------------

home=$(new_home twice)
data="$home/.local/share"
entry="$data/applications/$app_id.desktop"
if run_install "$home" --bundle "$built_bundle"; then
  pass "installs into an awkward home folder"
else
  fail "installs into an awkward home folder" "$(cat "$scratch/output")"
fi
if [ -x "$home/Applications/Veldspar.app/Veldspar" ] \
    && diff -r --no-dereference -q "$built_bundle" "$home/Applications/Veldspar.app" > /dev/null \
    && [ -f "$data/icons/hicolor/scalable/apps/$app_id.svg" ] \
    && [ -f "$data/metainfo/$app_id.metainfo.xml" ] && [ -f "$entry" ]; then
  pass "copies the bundle and adds entry, icon and description"
else
  fail "copies the bundle and adds entry, icon and description" "$(cd "$home" && find . | LC_ALL=C sort)"
fi
if [ -z "$(find "$home/Applications" -maxdepth 1 -name '.Veldspar.app-update-*')" ]; then
  pass "leaves no staging folder"
else
  fail "leaves no staging folder" "$(ls -a "$home/Applications")"
fi

# The Exec value, unescaped as a desktop entry string and then as a quoted argument, is the path.
expected_exec="$home/Applications/Veldspar.app/Veldspar"
exec_value=$(sed -n 's/^Exec=//p' "$entry")
unescaped=$(printf '%s' "$exec_value" | sed 's/\\\\/\\/g')
unescaped=${unescaped#\"}
unescaped=${unescaped%\"}
unescaped=$(printf '%s' "$unescaped" | sed -E 's/\\(["`$\\])/\1/g')
if [ "$unescaped" = "$expected_exec" ]; then
  pass "the launcher runs the installed app at its exact path"
else
  fail "the launcher runs the installed app at its exact path" "Exec=$exec_value gives $unescaped"
fi

if output=$(desktop-file-validate "$entry" 2>&1) && [ -z "$output" ]; then
  pass "desktop-file-validate accepts the launcher entry"
else
  fail "desktop-file-validate accepts the launcher entry" "$output"
fi
if output=$(timeout "$command_timeout" appstreamcli validate --no-net "$data/metainfo/$app_id.metainfo.xml" 2>&1); then
  pass "appstreamcli validate --no-net accepts the AppStream description"
else
  fail "appstreamcli validate --no-net accepts the AppStream description" "$output"
fi

before=$(snapshot "$home")
if run_install "$home" --bundle "$built_bundle" && [ "$(snapshot "$home")" = "$before" ]; then
  pass "a second run changes nothing"
else
  fail "a second run changes nothing" "$(cat "$scratch/output"; diff <(printf '%s\n' "$before") <(snapshot "$home"))"
fi
if grep -q 'installed already' "$scratch/output" && grep -q 'up to date' "$scratch/output"; then
  pass "a second run says nothing needed doing"
else
  fail "a second run says nothing needed doing" "$(cat "$scratch/output")"
fi

# --- versions -------------------------------------------------------------------------------

home=$(new_home newer)
newer=$(bundle_of_version 99.0.0)
run_install "$home" --bundle "$newer" || fail "installs version 99.0.0" "$(cat "$scratch/output")"
before=$(snapshot "$home")
if ! run_install "$home" --bundle "$built_bundle" && grep -q 'newer' "$scratch/output" \
    && grep -q -- '--force' "$scratch/output" && [ "$(snapshot "$home")" = "$before" ]; then
  pass "refuses to replace a newer version"
else
  fail "refuses to replace a newer version" "$(cat "$scratch/output")"
fi
if run_install "$home" --bundle "$built_bundle" --force && grep -q 'Replaced Veldspar 99.0.0' "$scratch/output" \
    && diff -r --no-dereference -q "$built_bundle" "$home/Applications/Veldspar.app" > /dev/null; then
  pass "--force replaces a newer version and says so"
else
  fail "--force replaces a newer version and says so" "$(cat "$scratch/output")"
fi

home=$(new_home older)
older=$(bundle_of_version 0.9.0)
run_install "$home" --bundle "$older" || fail "installs version 0.9.0" "$(cat "$scratch/output")"
if run_install "$home" --bundle "$built_bundle" && grep -q 'Replaced Veldspar 0.9.0' "$scratch/output" \
    && diff -r --no-dereference -q "$built_bundle" "$home/Applications/Veldspar.app" > /dev/null; then
  pass "replaces an older version and says what it replaced"
else
  fail "replaces an older version and says what it replaced" "$(cat "$scratch/output")"
fi

home=$(new_home prefix)
if run_install "$home" --bundle "$built_bundle" --prefix "$home/my apps" \
    && [ -x "$home/my apps/Veldspar.app/Veldspar" ] && [ ! -e "$home/Applications" ] \
    && grep -qF "Exec=\"$(printf '%s' "$home" | sed 's/\\/\\\\\\\\/g; s/"/\\\\"/g; s/`/\\\\`/g; s/\$/\\\\$/g')/my apps/Veldspar.app/Veldspar\"" \
      "$home/.local/share/applications/$app_id.desktop"; then
  pass "--prefix installs into another folder"
else
  fail "--prefix installs into another folder" "$(cat "$scratch/output")"
fi

# --- a library this system does not have ----------------------------------------------------

home=$(new_home missing)
lacking="$scratch/lacking/Veldspar.app"
mkdir -p -- "$(dirname -- "$lacking")"
cp -a -- "$built_bundle" "$lacking"
patchelf --add-needed libveldspar-absent.so.7 "$lacking/Resources/Veldspar"
before=$(snapshot "$home")
if ! run_install "$home" --bundle "$lacking" && grep -q '^  libveldspar-absent.so.7$' "$scratch/output" \
    && grep -q '^  sudo apt install libveldspar-absent7$' "$scratch/output" \
    && [ "$(snapshot "$home")" = "$before" ]; then
  pass "names a missing library with its apt line and changes nothing"
else
  fail "names a missing library with its apt line and changes nothing" "$(cat "$scratch/output")"
fi

exit "$failures"
