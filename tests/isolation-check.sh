#!/bin/sh
# Test programs isolate themselves however they are started: run by hand as root, a case that
# needs the private namespaces runs (it entered them itself); run by an account that cannot make
# them, the cases that need them are reported skipped, never run on the machine's own places.
# Usage: isolation-check.sh BUILD_DIR   (as root; status 77, "skipped", otherwise)
set -u
build=$1
[ "$(id -u)" -eq 0 ] || { echo "skipped: needs root to switch accounts"; exit 77; }
fail() { echo "FAILED: $*"; exit 1; }
case_name=Store.CreatePathMainComponentDisplayNameAndSharedDataRoot

out=$(env -u RAVEL_TEST_ISOLATED "$build/tests/common/common_tests" --gtest_filter=$case_name 2>&1)
echo "$out" | grep -q "\[       OK \] $case_name" || fail "run by hand as root: $out"

as_nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups env -u RAVEL_TEST_ISOLATED "$@" 2>&1; }
out=$(as_nobody "$build/tests/common/common_tests" --gtest_filter=$case_name)
echo "$out" | grep -q "\[  SKIPPED \] $case_name" || fail "a case as another account: $out"
out=$(as_nobody "$build/tests/agent/agent_unit_tests")
status=$?
[ $status -eq 0 ] || fail "a whole program as another account ended with $status: $out"
echo "$out" | grep -q "\[  SKIPPED \]" || fail "a whole program as another account: $out"
echo "$out" | grep -q "\[ *RUN *\]" && fail "a case ran without namespaces: $out"
echo "isolated by hand, skipped without namespaces"
