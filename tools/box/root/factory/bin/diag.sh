#!/bin/sh
# The box's diagnostic: diag.sh -c FILE leaves its result in tmp/wkr/FILE of the home.
results=/opt/gwad/tmp/wkr
mkdir -p "$results"
{
    uname -a
    uptime
    free
} >"$results/$2"
