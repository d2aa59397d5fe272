# Run by the build: cmake -DFOLDER=... -DOUTPUT=... -P embed_page.cmake
# Puts the style sheet and the scripts of FOLDER into its page.html, and writes that as a C++ source: what stands before
# the place of the record, and what stands behind it.

# A file's text; its end of line is the same wherever it was checked out.
function(read_text variable file)
  file(READ "${FOLDER}/${file}" text)
  string(REPLACE "\r\n" "\n" text "${text}")
  set(${variable} "${text}" PARENT_SCOPE)
endfunction()

# As numbers, since compilers limit the length of a string literal.
function(write_array name text)
  string(HEX "${text}" digits)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," elements "${digits}")
  string(REGEX REPLACE "((........){16})" "\\1\n" elements "${elements}")
  file(APPEND "${OUTPUT}.new" "constexpr char ${name}[] = {\n${elements}};\n\n")
endfunction()

set(script "")
foreach(file model.js format.js timeline.js elements.js theme.js head.js sections.js details.js page.js)
  read_text(text ${file})
  string(APPEND script "${text}\n")
endforeach()
read_text(page page.html)
read_text(style page.css)
string(REPLACE "{{page.css}}" "${style}" page "${page}")
string(REPLACE "{{page.js}}" "${script}" page "${page}")
string(FIND "${page}" "{{record}}" place)
if(place LESS 0)
  message(FATAL_ERROR "page.html has no place for the record")
endif()
string(SUBSTRING "${page}" 0 ${place} head)
math(EXPR behind "${place} + 10")
string(SUBSTRING "${page}" ${behind} -1 tail)

file(WRITE "${OUTPUT}.new" "#include \"dorn/report_template.h\"\n\nnamespace kestrun::dorn {\n\nnamespace {\n\n")
write_array(kHead "${head}")
write_array(kTail "${tail}")
file(APPEND "${OUTPUT}.new" "}  // namespace\n\nReportTemplate GetReportTemplate() {\n"
     "  return {{kHead, sizeof(kHead)}, {kTail, sizeof(kTail)}};\n}\n\n}  // namespace kestrun::dorn\n")
file(RENAME "${OUTPUT}.new" "${OUTPUT}")
