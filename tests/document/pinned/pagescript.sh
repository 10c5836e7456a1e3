# Per-page site script of the output pinning test: prints its arguments, so
# that the marker string it feeds changes from page to page.
echo "script: $*"
