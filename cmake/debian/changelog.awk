# The points of the first "## " part of CHANGELOG.md, as those of a Debian changelog with its length of lines.
function flush_point(   count, words, i, line) {
  gsub(/`/, "", point)
  if (point == "") return
  count = split(point, words, " ")
  line = "  *"
  for (i = 1; i <= count; ++i) {
    if (length(line) + 1 + length(words[i]) > 79) { print line; line = "   " }
    line = line " " words[i]
  }
  print line
  point = ""
}
/^## / { if (++parts > 1) exit; next }
parts != 1 { next }
/^- / { flush_point(); point = substr($0, 3); next }
{ point = point " " $0 }
END { flush_point() }
