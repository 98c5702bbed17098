# The files for the desktop are valid: check.sh DIRECTORY OUTPUT. While the licence is missing, the
# validator is given one, to see that nothing else is.
set -eu
mkdir -p "$2"
sed '/<!-- LICENCE MISSING/,/-->/c\  <metadata_license>FSFAP</metadata_license>' \
  "$1/invalid.ravelin.downloads.metainfo.xml" >"$2/invalid.ravelin.downloads.metainfo.xml"
appstreamcli validate --no-net "$2/invalid.ravelin.downloads.metainfo.xml"
desktop-file-validate "$1/invalid.ravelin.downloads.desktop"
