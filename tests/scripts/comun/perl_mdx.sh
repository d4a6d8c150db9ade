# Sourced (not a test of its own: the test scripts are those of the folder
# above) by the scripts that hold our production indexes against Perl's
# XBase::Index (Debian libdbd-xbase-perl), with build_dir and shared_dir set:
# the tally of checks, the tools and samples every one of them needs, and
# Perl's walk of a tag.

tool=$build_dir/bin/volcar_mdx
samples=$shared_dir/mdx

passed=0
failed=0
pass() { passed=$((passed + 1)); }
fail() { echo "FAIL: $*" >&2; failed=$((failed + 1)); }
finish() { echo "$passed passed, $failed failed"; [ "$failed" -eq 0 ]; exit $?; }

[ -x "$tool" ] || { fail "$tool not built (target volcar_mdx)"; finish; }
[ -d "$samples" ] || { fail "no sample folder $samples"; finish; }
perl -MXBase::Index -e 1 2>/dev/null || { fail "Perl's XBase::Index missing (package libdbd-xbase-perl)"; finish; }

# Every entry of tag $2 of index $1 as Perl walks it: the key in hex, the
# record number.
perl_walk() {
  perl -MXBase::Index -e '
    my $i = XBase::Index->new($ARGV[0], tag => $ARGV[1]) or die XBase::Index->errstr;
    $i->prepare_select; while (my @k = $i->fetch) { print unpack("H*", $k[0]), " $k[1]\n" }' "$1" "$2"
}
