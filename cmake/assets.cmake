# The web interface's files, embedded into one generated source: the agent is a single binary.
set(STYLE_SHEET_SIZE 7626)  # bytes, without the file's last line feed; part of the pages' contract

set(ASSETS_FOLDER ${CMAKE_CURRENT_SOURCE_DIR}/src/web/assets)
agent_glob(ASSET_FILES ${ASSETS_FOLDER} *)
set(ASSETS_SOURCE ${CMAKE_CURRENT_BINARY_DIR}/generated/web/assets.cc)
add_custom_command(
  OUTPUT ${ASSETS_SOURCE}
  COMMAND ${CMAKE_COMMAND} -DOUT=${ASSETS_SOURCE} -DSTYLE_SHEET_SIZE=${STYLE_SHEET_SIZE}
          -DFOLDER=${ASSETS_FOLDER}
          -P ${CMAKE_CURRENT_SOURCE_DIR}/cmake/embed_text.cmake
  DEPENDS ${ASSET_FILES} cmake/embed_text.cmake
  COMMENT "Embedding the web interface"
  VERBATIM)
