# Children: system, a pipe from one, fork and waitpid, a handler for their end.
use strict;
use warnings;
use FindBin ();
use lib $FindBin::Bin;
use plugin;

$| = 1;

sub work {
    print 'system: ', system('/bin/sh', '-c', 'exit 3') >> 8, "\n";
    print 'killed: ', system('/bin/sh', '-c', 'kill -KILL $$') & 127, "\n";
    print 'text: ', `/bin/echo text`, 'status: ', $? >> 8, "\n";
    my $ended = 0;
    local $SIG{CHLD} = sub { $ended++ while waitpid(-1, 1) > 0 };
    my $pid = fork // die;
    POSIX::_exit(2) if $pid == 0;
    select undef, undef, undef, 0.01 until $ended;
    print "ended: $ended\n";
}

use POSIX ();
plugin::load();
work();
plugin::unload();
plugin::snapshot('later');
work();
