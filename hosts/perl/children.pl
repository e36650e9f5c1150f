# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# Children: system, a pipe from one, fork and waitpid, a handler for their end.
use strict;
use warnings;
use FindBin ();
use lib $FindBin::Bin;
use POSIX ();
use plugin;

$| = 1;

my $ended = 0;

sub work {
    print 'system: ', system('/bin/sh', '-c', 'exit 3') >> 8, "\n";
    print 'killed: ', system('/bin/sh', '-c', 'kill -KILL $$') & 127, "\n";
    print 'text: ', `/bin/echo text`, 'status: ', $? >> 8, "\n";
    $ended = 0;
    my $pid = fork // die;
    POSIX::_exit(2) if $pid == 0;
    # Its end interrupts the wait, or has come before.
    select undef, undef, undef, 0.01 until $ended;
    print 'ended: ', waitpid($pid, 0) == $pid ? $? >> 8 : $!, "\n";
}

$SIG{CHLD} = sub { $ended++ };
plugin::load();
work();
plugin::unload();
plugin::snapshot('later');
work();
