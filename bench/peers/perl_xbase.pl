#!/usr/bin/perl
# Peer: Debian's libdbd-xbase-perl (the XBase module). Reads every row,
# filters by scanning, appends (set_record past the last row). It reads
# existing index files but cannot build or keep them, so it has no tags and
# no seeks here. Text comes back as code-page bytes (no decoding).
#
#   perl_xbase.pl leer FICHERO
#   perl_xbase.pl filtrar FICHERO CAMPO VALOR CAMPO_LEIDO [ORDEN]
#   perl_xbase.pl anadir ORIGEN COPIA N
#   options: --repeticiones R (default 3)
# One JSON line per operation, as the other peers.
use strict;
use warnings;
use File::Copy qw(copy);
use File::Basename qw(basename);
use Time::HiRes qw(time);
use XBase;

my $PAR = "perl XBase $XBase::VERSION";

my $repeticiones = 3;
my @args;
while (@ARGV) {
  my $a = shift @ARGV;
  if ($a eq '--repeticiones') { $repeticiones = shift @ARGV; } else { push @args, $a; }
}
my $op = shift @args or die "uso: $0 OPERACION ...\n";

sub abre { my $t = XBase->new(name => $_[0]) or die XBase->errstr; $t }

sub cronometra {
  my ($fn, $prep) = @_;
  my (@s, $r);
  for (1 .. $repeticiones) {
    $prep->() if $prep;
    my $t0 = time;
    $r = $fn->();
    push @s, time - $t0;
  }
  return (\@s, $r);
}

sub json_str { my $s = shift; $s =~ s/(["\\])/\\$1/g; "\"$s\"" }

sub emite {
  my ($op, $fichero, %d) = @_;
  my @p = ('"par": ' . json_str($PAR), '"op": ' . json_str($op), '"fichero": ' . json_str(basename($fichero)));
  for my $k (sort keys %d) {
    my $v = $d{$k};
    push @p, json_str($k) . ': ' . (ref $v eq 'ARRAY' ? '[' . join(', ', @$v) . ']' : $v =~ /^-?[\d.]+(e-?\d+)?$/ ? $v : json_str($v));
  }
  print '{' . join(', ', @p) . "}\n";
}

sub no_puede {
  my ($op, $motivo) = @_;
  print '{"par": ' . json_str($PAR) . ', "op": ' . json_str($op) . ', "no_puede": ' . json_str($motivo) . "}\n";
}

if ($op eq 'leer') {
  my $path = $args[0];
  my ($s, $n) = cronometra(sub {
    my $t = abre($path);
    my $n = 0;
    for my $i (0 .. $t->last_record) {
      my ($borrada, @v) = $t->get_record($i);  # every field
      $n++ unless $borrada;
    }
    $t->close;
    $n;
  });
  emite($op, $path, filas => $n, s => $s);
} elsif ($op eq 'filtrar') {
  my ($path, $campo, $valor, $leido, $orden) = @args;
  my $t = abre($path);
  my @nombres = $t->field_names;
  my %pos;
  @pos{@nombres} = (0 .. $#nombres);
  my @orden = $orden ? map { $pos{$_} } split /\+/, $orden : ();
  my ($pc, $pl) = ($pos{$campo}, $pos{$leido});
  my ($s, $n) = cronometra(sub {
    my @sel;
    for my $i (0 .. $t->last_record) {
      my ($borrada, @v) = $t->get_record($i);
      next if $borrada;
      (my $x = $v[$pc]) =~ s/^\s+|\s+$//g;
      push @sel, [join("\0", @v[@orden]), $v[$pl]] if $x eq $valor;
    }
    @sel = sort { $a->[0] cmp $b->[0] } @sel if @orden;
    my $total = 0;
    $total += length $_->[1] for @sel;
    scalar @sel;
  });
  emite($op, $path, filas => $n, s => $s, orden => ($orden // ''));
} elsif ($op eq 'anadir') {
  my ($origen, $copia, $n) = @args;
  my $f = abre($origen);
  my $count = $f->last_record + 1;
  my @filas;
  for my $i (0 .. $n - 1) {
    my ($borrada, @v) = $f->get_record(($i * 7919) % $count);
    push @filas, \@v;
  }
  $f->close;
  my $t;
  my ($s, $total) = cronometra(sub {
    for my $v (@filas) { $t->set_record($t->last_record + 1, @$v) or die $t->errstr; }
    $t->last_record + 1;
  }, sub { $t->close if $t; copy($origen, $copia) or die "copy: $!"; $t = abre($copia); });
  $t->close;
  emite($op, $origen, filas => $n, total => $total, s => $s, tags => 0);
} elsif ($op eq 'tags' || $op eq 'buscar') {
  no_puede($op, 'XBase sólo lee índices existentes (NDX, NTX, MDX, CDX); no construye tags ni los mantiene');
} else {
  die "operación desconocida: $op\n";
}
