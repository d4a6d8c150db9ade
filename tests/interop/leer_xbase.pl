#!/usr/bin/perl
# Reads a dBase table with Perl's XBase module and with DBI + DBD::XBase and
# prints what they saw as JSON (UTF-8), for interop_peers.py to compare:
#
#   perl leer_xbase.pl FICHERO.DBF CODIFICACION
#
# {"last_record": N-1, "last_change": "YYYY/M/D", "fields": [[name, type, length, decimals]...],
#  "records": [[deleted, value...]...]   every row, as XBase's get_record gives it,
#  "dbi_rows": [[value...]...]}          SELECT * through DBD::XBase (live rows only)
#
# XBase knows nothing of code pages: character fields come back as the bytes
# of the file and are decoded here with CODIFICACION.
use strict;
use warnings;
use DBI;
use Encode qw(decode);
use File::Basename qw(fileparse);
use JSON::PP;
use XBase;

my ($path, $encoding) = @ARGV;
die "uso: leer_xbase.pl FICHERO.DBF CODIFICACION\n" unless defined $encoding;

my $table = XBase->new($path) or die "XBase no abre $path: " . XBase->errstr . "\n";
my @types = $table->field_types;

sub decoded {
  my ($values) = @_;
  for my $i (0 .. $#types) {
    my $v = $values->[$i];
    $values->[$i] = decode($encoding, $v, Encode::FB_CROAK) if $types[$i] eq 'C' && defined $v;
  }
  return $values;
}

my @fields;
my @names = $table->field_names;
my @lengths = $table->field_lengths;
my @decimals = $table->field_decimals;
push @fields, [$names[$_], $types[$_], $lengths[$_] + 0, $decimals[$_] + 0] for 0 .. $#names;

my @records;
for my $n (0 .. $table->last_record) {
  my ($deleted, @values) = $table->get_record($n);
  die "XBase no lee el registro $n de $path: " . $table->errstr . "\n" unless defined $deleted;
  push @records, [$deleted + 0, @{ decoded(\@values) }];
}
my %result = (
  last_record => $table->last_record + 0,
  last_change => $table->get_last_change,
  fields => \@fields,
  records => \@records,
);
$table->close;

my ($name, $dir) = fileparse($path);
my $dbh = DBI->connect("dbi:XBase:$dir", undef, undef, { RaiseError => 1, PrintError => 0 });
my $sth = $dbh->prepare("SELECT * FROM $name");
$sth->execute;
my @rows;
while (my @row = $sth->fetchrow_array) {
  push @rows, decoded([@row]);
}
$dbh->disconnect;
$result{dbi_rows} = \@rows;

binmode STDOUT;
print JSON::PP->new->utf8->canonical->encode(\%result), "\n";
