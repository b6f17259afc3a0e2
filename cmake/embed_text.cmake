# cmake -DOUT=file -DSTYLE_SHEET_SIZE=bytes -DFOLDER=folder -P embed_text.cmake
#
# Writes one raw literal per file of the folder, named after it: style.css becomes ASSET_STYLE_CSS.
# A file's last line feed is dropped. Raw literals keep the generated file readable, byte for byte; a
# text must not hold the closing mark ")ASSET" followed by a double quote.
set(texts "// Generated from src/web/assets; edit the files there.\n#include \"web/assets.h\"\n")
include(${CMAKE_CURRENT_LIST_DIR}/glob.cmake)
agent_glob(files ${FOLDER} *)
foreach(file IN LISTS files)
  get_filename_component(name "${file}" NAME)
  file(READ "${FOLDER}/${name}" text)
  string(REGEX REPLACE "\n$" "" text "${text}")
  string(TOUPPER "ASSET_${name}" name)
  string(REPLACE "." "_" name "${name}")
  string(APPEND texts "\nconst char ${name}[] = R\"ASSET(${text})ASSET\";\n")
endforeach()
string(APPEND texts "\nstatic_assert(sizeof ASSET_STYLE_CSS - 1 == ${STYLE_SHEET_SIZE},\n"
       "              \"the style sheet must have ${STYLE_SHEET_SIZE} bytes\");\n")
file(WRITE "${OUT}" "${texts}")
