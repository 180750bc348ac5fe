#!/usr/bin/perl
# Includes point down: a source includes headers of its own folder and of those that the table in
# CONTRIBUTING.md names beside it. No two folders have a header of one name, and where a whole
# program is laid out so, each source has a header of its own.
# Usage: layout.pl SOURCE-FOLDER
use strict;
use warnings;
use File::Basename;
use File::Find;

chdir $ARGV[0] or die "$ARGV[0]: $!";
my (%may, @shared, %files, %places, @faults);

open my $guide, '<', 'CONTRIBUTING.md' or die "CONTRIBUTING.md: $!";
while (<$guide>) {
  next unless /^## Layout/ .. /^## Tests/ and /^ *\|(.*)\|(.*)\|$/;
  my ($folders, $others) = ($1, $2);
  my @others = $others =~ /`([^`]+)`/g;
  push @shared, @others if $folders =~ /every/;
  $may{$_} = [$_, @others] for $folders =~ /`([^`]+)`/g;
}

find({no_chdir => 1, wanted => sub {
  $File::Find::prune = 1 if m{^\./(build|demo|\.git|selftest|bench)};
  $files{s{^\./}{}r} = 1 if /\.(cpp|h)$/ and not -d;
}}, '.');

for my $file (sort keys %files) {
  my $folder = dirname $file;
  my $row = $may{$folder} or push(@faults, "$file: no row for its folder"), next;
  push @{$places{basename $file}}, $file if $file =~ /\.h$/;
  push @faults, "$file has no header of its name"
    if $file =~ m{^(run|common)/.*\.cpp} and basename($file) ne 'main.cpp' and
       not $files{$file =~ s/cpp$/h/r};
  open my $source, '<', $file or die "$file: $!";
  while (<$source>) {
    next unless my ($header) = /^#include "(.+\/.+)"/;
    next if grep { $_ eq $header or $_ eq dirname $header } @$row, @shared;
    push @faults, "$file:$.: $folder/ may not include $header";
  }
}
push @faults, map { "@$_: one name" } grep { @$_ > 1 } values %places;
push @faults, 'no table of folders' unless %may and %files;
print STDERR "$_\n" for @faults;
exit(@faults != 0);
