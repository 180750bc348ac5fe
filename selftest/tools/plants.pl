#!/usr/bin/perl
# Sees each check of kestrel-probe fail: plants faults over a module that passes it, one kind in one
# function at a time, and says which checks stayed ok whatever was planted.
# Usage: plants.pl KESTREL-PROBE PLANTER [OPTION...] [AREA...], with PLANT_MODULE and what the
# options need in the environment; --kinds=A,B for some kinds alone.
use strict;
use warnings;

my $probe = shift;
my $planter = shift;
my @kinds = qw(ok fails odd flip leaks longer shorter past before input lives crash);
my (@options, @names);
for (@ARGV) {
  if (/^--kinds=(.*)/) { @kinds = split /,/, $1; }
  elsif (/^--/) { push @options, $_; }
  else { push @names, $_; }
}

# The checks of a run: path to verdict and call.
sub run {
  my ($plant, @checks) = @_;
  local $ENV{PLANT} = $plant;
  my %found;
  while (my @some = splice @checks, 0, 300) {
    open my $out, '-|', $probe, '--json', '-', @options, $planter, @some or die $!;
    while (<$out>) {
      next unless /^\{"check":"([^"]*)","verdict":"([^"]*)","call":"([^"]*)"/;
      $found{$1} = [$2, $3];
    }
    close $out;
  }
  return \%found;
}

# Only what says that the module is at fault counts, or that it does not do what it claims.
sub caught { return $_[0] =~ /^(deviates|wrong|crashed|hung|refuses)$/; }

open STDERR, '>', '/dev/null';
my $baseline = run('', @names ? @names : split /\n/, `$probe --list --json - | sed -n 's/^{"check":"\\([^"]*\\)".*/\\1/p'`);
my %open = map { $_ => $baseline->{$_}[1] }
  grep { $baseline->{$_}[0] eq 'ok' && !m{^(start|watch)/} } keys %$baseline;
my $total = keys %open;
my %by;  # kind to number of checks that it was the first to catch

sub plant {
  my ($kind, $function, @checks) = @_;
  my $found = run("$kind:$function", @checks);
  for my $check (@checks) {
    next unless $found->{$check} && caught($found->{$check}[0]);
    delete $open{$check};
    $by{$kind}++;
  }
}

# First in the call that decides, then in any other.
for my $kind (@kinds) {
  my %calls;
  push @{$calls{$open{$_}}}, $_ for sort keys %open;
  plant($kind, $_, @{$calls{$_}}) for grep { $_ ne '' } sort keys %calls;
}
my %functions = map { $_->[1] => 1 } values %$baseline;
for my $function (grep { $_ ne '' } sort keys %functions) {
  for my $kind (@kinds) {
    plant($kind, $function, sort keys %open) if %open;
  }
}
my $seen = $total - keys %open;
printf "%d of %d checks that pass were seen to fail (%.1f %%)\n", $seen, $total,
  $total ? 100 * $seen / $total : 0;
print join(', ', map { "$_ $by{$_}" } sort { $by{$b} <=> $by{$a} } keys %by), "\n";
print "  $_\n" for sort keys %open;
exit($total && $seen >= 0.95 * $total ? 0 : 1);
