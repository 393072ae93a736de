# The client library as an imported target: target_link_libraries(my_service PRIVATE wex::wex)
if(NOT TARGET wex::wex)
  get_filename_component(wex_libdir "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)
  find_path(WEX_INCLUDE_DIR wex.h PATH_SUFFIXES wex HINTS "${wex_libdir}/../include" "${wex_libdir}/../../include")
  find_library(WEX_LIBRARY wex HINTS "${wex_libdir}")
  add_library(wex::wex SHARED IMPORTED)
  set_target_properties(wex::wex PROPERTIES
    IMPORTED_LOCATION "${WEX_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${WEX_INCLUDE_DIR}")
endif()
