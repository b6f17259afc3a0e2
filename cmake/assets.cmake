# The web interface's files, embedded into one generated source: the agent is a single binary.
set(STYLE_SHEET_SIZE 7626)  # bytes, without the file's last line feed; part of the pages' contract

file(GLOB ASSET_FILES CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/src/web/assets/*)
list(JOIN ASSET_FILES ":" asset_list)
set(ASSETS_SOURCE ${CMAKE_CURRENT_BINARY_DIR}/generated/web/assets.cc)
add_custom_command(
  OUTPUT ${ASSETS_SOURCE}
  COMMAND ${CMAKE_COMMAND} -DOUT=${ASSETS_SOURCE} -DSTYLE_SHEET_SIZE=${STYLE_SHEET_SIZE}
          -DFILES=${asset_list} -P ${CMAKE_CURRENT_SOURCE_DIR}/cmake/embed_text.cmake
  DEPENDS ${ASSET_FILES} cmake/embed_text.cmake
  COMMENT "Embedding the web interface"
  VERBATIM)
