#!/usr/bin/perl
# What kestrel-run reads of kestrel's output is what kestrel prints: every text in
# run/judge/Phrases.h stands in one of the sources that the comment above it names.
# Usage: phrases.pl SOURCE-FOLDER
use strict;
use warnings;

chdir $ARGV[0] or die "$ARGV[0]: $!";

sub content {
  open my $file, '<', $_[0] or die "$_[0]: $!";
  local $/;
  return scalar <$file>;
}

my ($found, $status, $printed) = (0, 0, '');
for (split /\n/, content('run/judge/Phrases.h')) {
  next if /^#/;
  if (m{^// (.*)}) {
    $printed .= content($_) for $1 =~ m{[\w/]+\.(?:cpp|h)\b}g;
    next;
  }
  $printed = '' if /^$/;
  for my $text (/"((?:[^"\\]|\\.)*)"/g) {
    ++$found;
    next if index($printed, $text) >= 0;
    print STDERR "nobody prints \"$text\"\n";
    $status = 1;
  }
}
exit($status or $found == 0);
