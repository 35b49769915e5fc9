#!/usr/bin/env bash
# Fails when liborvi exports anything but orvi names (functions, and the
# vtables and type information of the public classes).
set -euo pipefail
library=$1

symbols=$(nm -D --defined-only -C "$library" | awk '{ $1=""; $2=""; sub(/^  /, ""); print }')
foreign=$(printf '%s\n' "$symbols" | grep -vE '^(orvi::|typeinfo for orvi::|typeinfo name for orvi::|vtable for orvi::)' | grep -v '^$' || true)
if [ -n "$foreign" ]; then
  echo "non-orvi symbols exported from $library:" >&2
  printf '%s\n' "$foreign" >&2
  exit 1
fi
for required in 'orvi::ILogger::registerHandler' 'orvi::ILogger::setLogLevel'; do
  printf '%s\n' "$symbols" | grep -qF "$required" || { echo "missing export: $required" >&2; exit 1; }
done
echo "$(printf '%s\n' "$symbols" | grep -c .) orvi symbols exported"
