# occurrences.pl PID TEXT: how often a text stands in the memory that a process can write.
my ($pid, $text) = @ARGV;
open my $maps, "<", "/proc/$pid/maps" or die $!;
open my $memory, "<:raw", "/proc/$pid/mem" or die $!;
my $count = 0;
while (<$maps>) {
  my ($from, $to) = /^(\w+)-(\w+) rw/ or next;
  ($from, $to) = (hex $from, hex $to);
  next if $to - $from > 1 << 28;  # a sanitizer's own
  sysseek $memory, $from, 0;
  my $bytes = "";
  while (length $bytes < $to - $from) {
    sysread $memory, $bytes, $to - $from - length $bytes, length $bytes or last;
  }
  $count += () = $bytes =~ /\Q$text\E/g;
}
print "$count\n";
