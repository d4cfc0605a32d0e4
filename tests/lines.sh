#!/usr/bin/env bash
# Non-blank lines of tests/ (the fuzz inputs aside) against src/, tools/ and sim/.
cd "$(dirname "$0")/.."
count() { git ls-files -co --exclude-standard "$@" | grep -Ev '^tests/fuzz/(corpus|regressions)/' | xargs cat | grep -cv '^\s*$'; }
tests=$(count tests) code=$(count src tools sim)
echo "tests $tests, code $code: $((100 * tests / code))%"
