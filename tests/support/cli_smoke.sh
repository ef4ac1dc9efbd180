#!/bin/sh
# The command-line tool as built for another system, run through its emulator (Wine): `send`
# runs the example script offline, the identity cookies written up front as a previous sync
# would have left them, so every record waits in the pending file; `pending show` must list each
# tracked record, and `validate` must accept one of them taken from there.
#   cli_smoke.sh EMULATOR ZELVANOR_EXE EXAMPLE_SCRIPT
set -eu
emulator=$1 exe=$2 script=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/zelvanor-cli-smoke.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"
mkdir data
cp "$script" example.jsonl
printf '# Netscape HTTP Cookie File\n' >data/cookies.txt
for name in cid did sid; do
  printf '127.0.0.1\tFALSE\t/\tTRUE\t4102444800\tfa_%s\t%s-smoke\n' "$name" "$name" >>data/cookies.txt
done
fail() {
  echo "cli_smoke: $*" >&2
  cat send.err show.out >&2 2>/dev/null || true
  exit 1
}
"$emulator" "$exe" send --endpoint https://127.0.0.1:9 --network offline --data-dir data \
  example.jsonl >send.out 2>send.err || fail "send exited with status $?"
"$emulator" "$exe" pending show data/ZLogs.tmp >show.out 2>&1 || fail "pending show failed"
tracked=$(grep -c '"op":"track"' example.jsonl)
frames=$(grep -c '^frame ' show.out || true)
[ "$frames" -ge "$tracked" ] || fail "$frames frames in the pending file, $tracked tracked"
grep '^frame ' show.out | grep '"add_to_cart"' | head -1 | sed 's/^[^{]*//' >record.json
[ -s record.json ] || fail "the add_to_cart event is not in the pending file"
"$emulator" "$exe" validate record.json >validate.out 2>&1 || fail "validate refused the record"
grep -q valid validate.out || fail "validate printed: $(cat validate.out)"
echo "cli_smoke: $frames frames in the pending file ($tracked tracked); one validates"
