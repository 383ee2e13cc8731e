#!/usr/bin/env bash
# The MSI: its custom actions checked in its tables (Wine's msiexec forgives sequences that Windows
# refuses), then installed and removed: files, registration and the tool appear and go, the settings stay.
# Usage: msi_roundtrip_test.sh <source dir> <bin dir>   (inside the test world)
set -euo pipefail
top=$1
bin=$2
run="$top/tools/testworld/wine-run"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export WINEDEBUG=-all
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

msi=$("$top/scripts/package.sh" --no-build --bin "$bin" --out "$work" | tail -1)

# Every custom action deferred (0x400), not impersonating (0x800), inside the script, after/before the files.
msiinfo export "$msi" InstallExecuteSequence | tr -d '\r' >"$work/seq"
msiinfo export "$msi" CustomAction | tr -d '\r' >"$work/ca"
seq_of() { awk -F'\t' -v a="$1" '$1 == a { print $3 }' "$work/seq"; }
first=$(seq_of InstallInitialize) last=$(seq_of InstallFinalize)
actions=$(awk -F'\t' 'NR > 3 { print $1 "\t" $2 }' "$work/ca")
[ "$(wc -l <<<"$actions")" = 2 ] || fail "expected two custom actions: $actions"
while IFS=$'\t' read -r action type; do
  s=$(seq_of "$action")
  [ -n "$s" ] && [ "$s" -gt "$first" ] && [ "$s" -lt "$last" ] || fail "$action at '$s' is not between $first and $last"
  [ $((type & 0xC00)) = $((0xC00)) ] || fail "$action (type $type) is not deferred without impersonation"
done <<<"$actions"
[ "$(seq_of RegisterProvider)" -gt "$(seq_of InstallFiles)" ] || fail "RegisterProvider runs before InstallFiles"
[ "$(seq_of UnregisterProvider)" -lt "$(seq_of RemoveFiles)" ] || fail "UnregisterProvider runs after RemoveFiles"

c=$WINEPREFIX/drive_c
dll=$c/windows/system32/KestalKeyVaultKSP.dll
dll86=$c/windows/syswow64/KestalKeyVaultKSP.dll
tool="$c/Program Files/Kestal/Key Vault KSP/kestalksp.exe"
providers='HKLM\SYSTEM\CurrentControlSet\Control\Cryptography\Providers\Kestal Key Vault Key Storage Provider\UM'
settings='HKLM\Software\Kestal\KestalKeyVaultKSP'
cp "$msi" "$c/kestal-roundtrip.msi"
"$run" reg add "$settings" /v KeyVault /d kept-by-uninstall /f >/dev/null

"$run" msiexec /i 'C:\kestal-roundtrip.msi' /qn >"$work/install.log" 2>&1 || fail "install exited with $?"
[ -f "$dll" ] || fail "the DLL is not in System32"
[ -f "$dll86" ] && ! cmp -s "$dll" "$dll86" || fail "the x86 DLL is not in SysWOW64"
[ -f "$tool" ] || fail "the tool is not under Program Files"
"$run" reg query "$providers" /v Image 2>/dev/null | grep -q 'KestalKeyVaultKSP.dll' || fail "not registered after install"

"$run" msiexec /x 'C:\kestal-roundtrip.msi' /qn >"$work/uninstall.log" 2>&1 || fail "uninstall exited with $?"
[ ! -e "$dll" ] || fail "the DLL is still in System32"
[ ! -e "$dll86" ] || fail "the x86 DLL is still in SysWOW64"
[ ! -e "$tool" ] || fail "the tool is still under Program Files"
! "$run" reg query "$providers" >/dev/null 2>&1 || fail "still registered after uninstall"
"$run" reg query "$settings" /v KeyVault 2>/dev/null | grep -q kept-by-uninstall || fail "uninstall removed the settings"

"$run" reg delete "$settings" /v KeyVault /f >/dev/null 2>&1 || true
rm -f "$c/kestal-roundtrip.msi"
[ "$failures" = 0 ] && echo "PASS: MSI round trip" || exit 1
