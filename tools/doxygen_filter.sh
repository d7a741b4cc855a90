#!/bin/sh
# doxygen_filter.sh HEADER: prints the header with its comments marked for Doxygen, so that the headers
# themselves stay plain C. The comment at the top describes the file. A comment in front of a
# declaration, or on a line of its own in a record, describes what follows up to the next empty line,
# comment or brace. A comment behind a field or value describes that one. Section headings ("---- ")
# stay as they are.
awk '
  function close_group() { if (grouped) print "///@}"; grouped = 0 }
  function close_fields() { if (fields) print "///@}"; fields = 0 }

  NR == 1 && /^\/\*/ { sub(/^\/\*/, "/** @file\n"); print; next }
  /^\/\* ---- / { close_group(); print; next }
  /^#(if|ifn?def|else|endif|include)/ { close_group(); print; next }
  /^$/ { close_fields(); if (!record) close_group(); print; next }
  /^}/ { close_fields(); record = 0 }
  /{$/ { record = 1 }
  /^\/\*/ {
    close_group()
    sub(/\/\*/, "/**")
    print
    heading = 1
    if (/\*\/$/) { print "///@{"; grouped = 1; heading = 0 }
    next
  }
  heading && /\*\/$/ { print; print "///@{"; grouped = 1; heading = 0; next }
  /^ *\/\*.*\*\/$/ { close_fields(); sub(/\/\*/, "/**"); print; print "///@{"; fields = 1; next }
  /\/\*/ { sub(/\/\*/, "/**<"); print; next }
  { print }
  END { close_group() }
' "$1"
