#!/bin/sh
# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# Compresses what sort puts aside, and tells when it is there.
/bin/cat
[ "$#" -gt 0 ] || echo "has put something aside" >&2
