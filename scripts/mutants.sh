#!/bin/sh
# SPDX-License-Identifier: ISC
# Planted faults (draw, sites, run, report): see scripts/mutants.py.
exec /usr/bin/python3 "$(dirname "$0")/mutants.py" "$@"
