#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the tests of a program in two parts at the same time, since they mostly wait: in_two.sh PROGRAM ARGUMENT...
export GTEST_TOTAL_SHARDS=2
GTEST_SHARD_INDEX=0 "$@" & first=$!
second=0
GTEST_SHARD_INDEX=1 "$@" || second=$?
wait $first && exit $second
