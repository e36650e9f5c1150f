# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# POSIX::sigaction: what is read back, masks, SA_RESTART, immediate handlers.
use strict;
use warnings;
use FindBin ();
use lib $FindBin::Bin;
use POSIX qw(:signal_h :errno_h);
use Time::HiRes ();
use plugin;

$| = 1;

my @called;
my $both = POSIX::SigSet->new(SIGUSR1, SIGUSR2);

sub read_under_alarm {
    my ($what, $flags) = @_;
    my $handler = sub { push @called, 'ALRM' };
    sigaction(SIGALRM, POSIX::SigAction->new($handler, POSIX::SigSet->new, $flags)) or die;
    pipe my $reading, my $writing or die;
    my $pid = fork // die;
    if ($pid == 0) {
        Time::HiRes::sleep(0.1);
        syswrite $writing, 'x';
        POSIX::_exit(0);
    }
    Time::HiRes::ualarm(30_000);
    my $count = sysread $reading, my $byte, 1;
    print "$what: ", (defined $count ? 'restarted' : $! == EINTR ? 'EINTR' : $!), "\n";
    waitpid $pid, 0;
}

sub work {
    @called = ();
    sigprocmask(SIG_BLOCK, $both) or die;
    kill 'USR1', $$;
    kill 'USR2', $$;
    print "held back: @called\n";
    my $pending = POSIX::SigSet->new;
    sigpending($pending);
    print 'pending: ', ($pending->ismember(SIGUSR1) ? 'USR1' : 'none'), "\n";
    sigprocmask(SIG_UNBLOCK, $both) or die;
    print "called: @{[sort @called]}\n";
    read_under_alarm('SA_RESTART', SA_RESTART);
    read_under_alarm('without', 0);
}

for my $name (qw(USR1 USR2)) {
    my $number = $name eq 'USR1' ? SIGUSR1 : SIGUSR2;
    my $action = POSIX::SigAction->new(sub { push @called, $name }, $both, SA_RESTART);
    $action->safe($name eq 'USR2');
    sigaction($number, $action) or die;
}
sigaction(SIGALRM, POSIX::SigAction->new(sub { }, POSIX::SigSet->new, 0)) or die;
plugin::load();
work();
plugin::unload();
plugin::snapshot('later');
work();
my $old = POSIX::SigAction->new;
sigaction(SIGUSR1, undef, $old) or die;
print 'read back: ', ref $old->handler, ' ', $old->flags & SA_RESTART ? 'SA_RESTART' : 'none', "\n";
