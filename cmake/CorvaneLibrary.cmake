# One library per area, and the dependency rule made mechanical.
#
#   corvane_library(Logging FOLDER EmergencyUpdateService/Logging
#                   SOURCES A.cpp HEADERS A.h B.h DEPENDS Errors Platform)
#
# Headers are included as "<last part of FOLDER>/<header>". Each library publishes a folder of its own below the build
# tree that holds links to just the headers it lists, so a source file sees the headers of the libraries its own library
# DEPENDS on, and of those that they DEPEND on, and nothing else: including anything further is a compile error.
function(corvane_library name)
  cmake_parse_arguments(ARG "" "FOLDER;PREFIX" "SOURCES;HEADERS;DEPENDS;PRIVATE_DEPENDS" ${ARGN})
  if(DEFINED ARG_PREFIX)
    set(prefix "${ARG_PREFIX}")
  else()
    get_filename_component(prefix "${ARG_FOLDER}" NAME)
  endif()
  set(published "${CMAKE_BINARY_DIR}/headers/${name}")
  file(REMOVE_RECURSE "${published}")
  foreach(header IN LISTS ARG_HEADERS)
    if(NOT EXISTS "${CMAKE_SOURCE_DIR}/${ARG_FOLDER}/${header}")
      message(FATAL_ERROR "${name}: no header ${ARG_FOLDER}/${header}")
    endif()
    cmake_path(GET header PARENT_PATH below)
    file(MAKE_DIRECTORY "${published}/${prefix}/${below}")
    file(CREATE_LINK "${CMAKE_SOURCE_DIR}/${ARG_FOLDER}/${header}" "${published}/${prefix}/${header}" SYMBOLIC)
  endforeach()
  list(TRANSFORM ARG_SOURCES PREPEND "${CMAKE_SOURCE_DIR}/${ARG_FOLDER}/")
  if(ARG_SOURCES)
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC "${published}")
    target_link_libraries(${name} PUBLIC ${ARG_DEPENDS} PRIVATE ${ARG_PRIVATE_DEPENDS} CorvaneOptions)
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE "${published}")
    target_link_libraries(${name} INTERFACE ${ARG_DEPENDS})
  endif()
endfunction()
