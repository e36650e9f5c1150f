# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# %SIG: handlers, local ones, names, ignored signals, die out of a handler, children.
use strict;
use warnings;
use FindBin ();
use lib $FindBin::Bin;
use plugin;

$| = 1;

sub handler { print "handler $_[0]\n" }

sub work {
    kill $_, $$ for qw(USR1 TERM HUP);
    {
        local $SIG{TERM} = sub { print "local $_[0]\n" };
        kill 'TERM', $$;
    }
    kill 'TERM', $$;
    kill 'USR2', $$;
    eval {
        local $SIG{USR1} = sub { die "died of $_[0]\n" };
        kill 'USR1', $$;
    };
    print $@;
    pipe my $reading, my $writing or die;
    close $reading;
    print syswrite($writing, 'x') // "pipe: $!", "\n";
    print 'handled: ', join(' ', grep { ref $SIG{$_} } sort keys %SIG), "\n";
}

$SIG{$_} = \&handler for qw(USR1 TERM HUP);
$SIG{USR2} = 'IGNORE';
$SIG{PIPE} = 'IGNORE';
plugin::load();
work();
plugin::unload();
plugin::snapshot('later');
work();
$SIG{TERM} = 'DEFAULT';
kill 'TERM', $$;
print "is not reached\n";
