#!/bin/sh
# Compresses what sort puts aside, and tells when it is there.
/bin/cat
[ "$#" -gt 0 ] || echo "has put something aside" >&2
