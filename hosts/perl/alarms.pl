# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# alarm: the end of a blocking call by die, and sleep.
use strict;
use warnings;
use FindBin ();
use lib $FindBin::Bin;
use Time::HiRes ();
use plugin;

$| = 1;

sub work {
    pipe my $reading, my $writing or die;
    eval {
        local $SIG{ALRM} = sub { die "alarm\n" };
        Time::HiRes::ualarm(20_000);
        sysread $reading, my $byte, 1;
        print "is not reached\n";
    };
    print "died of $@";
    my $count = 0;
    local $SIG{ALRM} = sub { syswrite $writing, 'x' if ++$count == 3 };
    Time::HiRes::ualarm(10_000, 10_000);
    my $read = 0;
    until ($read) {
        $read = sysread($reading, my $byte, 1) // 0;
    }
    Time::HiRes::ualarm(0);
    print 'alarms: ', ($count >= 3 ? 'enough' : $count), "\n";
}

$SIG{ALRM} = sub { };
plugin::load();
work();
plugin::unload();
plugin::snapshot('later');
work();
