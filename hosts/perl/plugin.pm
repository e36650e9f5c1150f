# SPDX-FileCopyrightText: 2026 The Sorvane signals authors
# SPDX-License-Identifier: Apache-2.0

# How the scripts load the plug-in, if it is this run's turn for that, and have snapshots taken.
package plugin;

use strict;
use warnings;
use DynaLoader ();

my $plugin;

sub load {
    my $path = $ENV{SORVANE_HOSTS_LOAD} or return;
    $plugin = DynaLoader::dl_load_file($path, 0) or die DynaLoader::dl_error();
}

sub unload {
    DynaLoader::dl_unload_file($plugin) if $plugin;
    undef $plugin;
}

# By a shared object that takes one when it is loaded.
sub snapshot {
    local $ENV{SORVANE_HOSTS_SNAPSHOT} = shift;
    my $taken = DynaLoader::dl_load_file($ENV{SORVANE_HOSTS_TAKE}, 0) or die DynaLoader::dl_error();
    DynaLoader::dl_unload_file($taken);
}

1;
