#!/usr/bin/env bash
# expect.sh EXIT_CODE PATTERN [STDIN_FILE|-] -- command...
# Runs the command (feeding STDIN_FILE when given) and checks its exit code and that its
# combined output matches the extended regular expression PATTERN, on one line or across
# lines (the output with its line breaks read as spaces: a help text, a result and its
# message on standard error).
set -u
want_code=$1; pattern=$2; input=$3; shift 3
[ "$1" = "--" ] && shift
if [ "$input" = "-" ]; then
  out=$("$@" 2>&1 </dev/null); code=$?
else
  out=$("$@" 2>&1 <"$input"); code=$?
fi
if [ "$code" != "$want_code" ]; then
  echo "exit code $code, expected $want_code; output:"; echo "$out"; exit 1
fi
if ! grep -Eq -- "$pattern" <<<"$out" && ! grep -Eq -- "$pattern" <<<"$(tr '\n' ' ' <<<"$out")"; then
  echo "output does not match /$pattern/:"; echo "$out"; exit 1
fi
echo "$out"
