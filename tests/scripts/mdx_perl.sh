#!/bin/bash
# Production indexes (.MDX) read and written by the engine, held against
# Perl's XBase::Index (Debian libdbd-xbase-perl):
#   * every dBASE IV sample in SHARED_DIR/mdx: the same tags (name, key type
#     and length, unique, descending, expression, FOR) and, walked, the same
#     keys (compared byte for byte, in hex) and record numbers in the same order;
#   * each sample rewritten by writeMdx from our walk: Perl and we walk the
#     copy exactly as the original;
#   * a table of a few thousand rows made here, whose tags need several levels:
#     Perl walks every entry, in our order;
#   * that table's index and a copy of every sample changed in place
#     (MdxUpdate: random inserts and removals, nodes split and freed): Perl
#     and we walk each tag as the changes left it.
#
#   bash mdx_perl.sh BUILD_DIR SHARED_DIR
set -u

build_dir=${1:?usage: mdx_perl.sh BUILD_DIR SHARED_DIR}
shared_dir=${2:?usage: mdx_perl.sh BUILD_DIR SHARED_DIR}

. "$(dirname "$0")/comun/perl_mdx.sh"


work=$(mktemp -d "${TMPDIR:-/tmp}/mdx_perl.XXXXXX")
trap 'rm -rf "$work"' EXIT

# Perl's list of tags, in our format. XBase::Index reads only the first 24
# bytes of a tag header, so the expression and FOR texts are read beside it
# from the documented offsets.
perl_tags() {
  perl -MXBase::Index -e '
    my $f = shift; my $i = XBase::Index->new($f) or die XBase::Index->errstr;
    open(my $fh, "<:raw", $f) or die; 
    for my $name (sort keys %{$i->{tags}}) {
      my $t = $i->{tags}{$name};
      my ($expr, $for, $flag, $hdr) = ("", "", 0, "");
      seek($fh, $t->{header_page} * 512, 0); read($fh, $hdr, 1024);
      ($expr) = unpack("\@24 Z220", $hdr);
      $flag = unpack("\@245 C", $hdr);
      ($for) = unpack("\@762 Z220", $hdr) if $flag;
      printf "%s\t%s\t%u\t%d\t%d\t%s\t%s\n", $name, $t->{key_type_1}, $t->{key_length},
        ($t->{unique} || ($t->{key_format_1} & 0x40)) ? 1 : 0, ($t->{key_format_1} & 0x08) ? 1 : 0, $expr, $for;
    }' "$1"
}

# Compares tags and every tag's walk of one MDX file; $2 = label.
check_file() {
  local mdx=$1 label=$2
  if ! "$tool" tags "$mdx" | sort >"$work/ours.tags"; then fail "$label: we could not list the tags"; return; fi
  perl_tags "$mdx" | sort >"$work/perl.tags"
  if diff "$work/perl.tags" "$work/ours.tags" >"$work/diff"; then pass; else fail "$label: tags differ"; cat "$work/diff" >&2; fi
  local tag
  for tag in $(cut -f1 "$work/perl.tags"); do
    perl_walk "$mdx" "$tag" >"$work/perl.walk"
    if ! "$tool" walk "$mdx" "$tag" >"$work/ours.walk"; then fail "$label $tag: our walk failed"; continue; fi
    if [ ! -s "$work/perl.walk" ] && [ -s "$work/ours.walk" ]; then fail "$label $tag: Perl walked nothing"; continue; fi
    if cmp -s "$work/perl.walk" "$work/ours.walk"; then
      pass
      tags_seen=$((tags_seen + 1))
      entries_seen=$((entries_seen + $(wc -l <"$work/ours.walk")))
    else
      fail "$label $tag: walks differ"; diff "$work/perl.walk" "$work/ours.walk" | head -5 >&2
    fi
  done
}

tables=0 tags_seen=0 entries_seen=0
for mdx in "$samples"/*.MDX; do
  base=$(basename "$mdx" .MDX)
  tables=$((tables + 1))
  check_file "$mdx" "$base"
  # Rewritten from our walk: the copy must walk as the original did.
  cp "$mdx" "$work/orig.MDX"
  if ! "$tool" copy "$mdx" "$work/$base.MDX"; then fail "$base: writeMdx failed"; continue; fi
  for tag in $(cut -f1 "$work/perl.tags"); do
    "$tool" walk "$mdx" "$tag" >"$work/orig.walk"
    perl_walk "$work/$base.MDX" "$tag" >"$work/copy.perl"
    "$tool" walk "$work/$base.MDX" "$tag" >"$work/copy.ours"
    if cmp -s "$work/orig.walk" "$work/copy.perl" && cmp -s "$work/orig.walk" "$work/copy.ours"; then pass
    else fail "$base $tag: the rewritten index walks differently"; fi
  done
  "$tool" tags "$work/$base.MDX" | sort >"$work/copy.tags"
  "$tool" tags "$mdx" | sort >"$work/orig.tags"
  if cmp -s "$work/orig.tags" "$work/copy.tags"; then pass; else fail "$base: the rewritten index lists other tags"; fi
done
echo "samples: $tables tables, $tags_seen tags, $entries_seen entries walked as Perl walks them"

# A table of our own, big enough for trees of several levels.
rows=6000
if ! "$tool" table "$work" "$rows" >"$work/depths"; then fail "could not build the big table"; finish; fi
while read -r tag levels; do
  if [ "$levels" -ge 2 ]; then pass; else fail "GRANDE $tag: only $levels level(s) for $rows rows"; fi
  perl_walk "$work/GRANDE.MDX" "$tag" >"$work/perl.walk"
  "$tool" walk "$work/GRANDE.MDX" "$tag" >"$work/ours.walk"
  n=$(wc -l <"$work/perl.walk")
  if [ "$n" -eq "$rows" ] && cmp -s "$work/perl.walk" "$work/ours.walk"; then pass
  else fail "GRANDE $tag: Perl walked $n of $rows entries, or in another order"; fi
  echo "GRANDE $tag: $levels levels, $n entries walked by Perl"
done <"$work/depths"

# Changed in place: what each tag should walk as, held against both walks.
# $1 = index file, $2 = random operations per tag, $3 = share of inserts (%),
# $4 = label.
check_changed() {
  local mdx=$1 ops=$2 share=$3 label=$4 tag
  if ! "$tool" cambiar "$mdx" "$ops" "$ops" "$share" >"$work/expected"; then fail "$label: changing it in place failed"; return; fi
  for tag in $("$tool" tags "$mdx" | cut -f1); do
    awk -v t="$tag" '$1 == t { print $2, $3 }' "$work/expected" >"$work/expected.walk"
    perl_walk "$mdx" "$tag" >"$work/perl.walk"
    "$tool" walk "$mdx" "$tag" >"$work/ours.walk"
    if cmp -s "$work/expected.walk" "$work/perl.walk" && cmp -s "$work/expected.walk" "$work/ours.walk"; then
      pass
      changed_entries=$((changed_entries + $(wc -l <"$work/perl.walk")))
    else
      fail "$label $tag: after changes in place Perl or we walk other entries than expected"
      diff "$work/expected.walk" "$work/perl.walk" | head -5 >&2
    fi
  done
}

changed_entries=0
cp "$work/GRANDE.MDX" "$work/CAMBIOS.MDX"
check_changed "$work/CAMBIOS.MDX" 5000 60 "GRANDE changed"
# Most entries removed (emptied nodes freed, the root handed down), then
# many inserted again (freed blocks taken back).
check_changed "$work/CAMBIOS.MDX" 7000 5 "GRANDE emptied"
before=$(stat -c %s "$work/CAMBIOS.MDX")
check_changed "$work/CAMBIOS.MDX" 3000 95 "GRANDE refilled"
echo "GRANDE changed: $before bytes before refilling, $(stat -c %s "$work/CAMBIOS.MDX") after"
for mdx in "$samples"/*.MDX; do
  cp "$mdx" "$work/cambio.MDX"
  check_changed "$work/cambio.MDX" 400 60 "$(basename "$mdx" .MDX) changed"
done
echo "changed in place: $changed_entries entries walked by Perl as expected"

finish
