#!/bin/sh
# doxygen_filter.sh HEADER: the header with its comments marked for Doxygen. The headers themselves
# stay plain C: the comment at the top describes the file, one in front of a declaration describes
# it and what follows it without an empty line, one behind a field or value what stands before it.
awk '
  function close_group() { if (grouped) print "///@}"; grouped = 0 }

  NR == 1 && /^\/\*/ { sub(/^\/\*/, "/** @file\n"); print; next }
  /^\/\* ---- / { close_group(); print ""; next }
  /^#(if|ifn?def|else|endif|include)/ { close_group(); print; next }
  /^$/ { close_group(); print; next }
  /^\/\*/ {
    close_group()
    sub(/\/\*/, "/**")
    print
    heading = 1
    if (/\*\/$/) { print "///@{"; grouped = 1; heading = 0 }
    next
  }
  heading && /\*\/$/ { print; print "///@{"; grouped = 1; heading = 0; next }
  /^ *\/\*/ { sub(/\/\*/, "/**"); print; next }
  /\/\*/ { sub(/\/\*/, "/**<"); print; next }
  { print }
  END { close_group() }
' "$1"
