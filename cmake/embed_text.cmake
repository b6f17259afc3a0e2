# cmake -DOUT=file -DSTYLE_SHEET_SIZE=bytes -DFILES=a:b:c -P embed_text.cmake
#
# Writes one raw literal per file, named after it: style.css becomes ASSET_STYLE_CSS. A file's last
# line feed is dropped. Raw literals keep the generated file readable, byte for byte; a text must
# not hold the closing mark ")ASSET" followed by a double quote.
set(texts "// Generated from src/web/assets; edit the files there.\n#include \"web/assets.h\"\n")
string(REPLACE ":" ";" FILES "${FILES}")
foreach(file IN LISTS FILES)
  file(READ "${file}" text)
  string(REGEX REPLACE "\n$" "" text "${text}")
  get_filename_component(name "${file}" NAME)
  string(TOUPPER "ASSET_${name}" name)
  string(REPLACE "." "_" name "${name}")
  string(APPEND texts "\nconst char ${name}[] = R\"ASSET(${text})ASSET\";\n")
endforeach()
string(APPEND texts "\nstatic_assert(sizeof ASSET_STYLE_CSS - 1 == ${STYLE_SHEET_SIZE},\n"
       "              \"the style sheet must have ${STYLE_SHEET_SIZE} bytes\");\n")
file(WRITE "${OUT}" "${texts}")
