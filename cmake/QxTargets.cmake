# One static library for each folder of src/, one executable for each program.
# Sources are found by pattern, so a new file needs no entry here.

set(QX_WARNINGS -Wall -Wextra -Wconversion)
if(QX_WERROR OR CMAKE_BUILD_TYPE STREQUAL "Debug")
  list(APPEND QX_WARNINGS -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # They fire on the standard library's own code in this version, most of them only at -O3.
  list(APPEND QX_WARNINGS -Wno-restrict)
  if(CMAKE_BUILD_TYPE STREQUAL "Release")
    list(APPEND QX_WARNINGS -Wno-stringop-overflow -Wno-stringop-overread -Wno-array-bounds)
  endif()
endif()
set(QX_HARDENING -fstack-protector-strong)
if(NOT QX_SANITIZE AND NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  list(APPEND QX_HARDENING -D_FORTIFY_SOURCE=2)
endif()

if(QX_SANITIZE)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    list(APPEND QX_WARNINGS -Wno-maybe-uninitialized)  # instrumented code of the standard library sets it off
  endif()
  add_compile_options(-fsanitize=${QX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${QX_SANITIZE})
endif()

execute_process(COMMAND git rev-list --count HEAD
                WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                OUTPUT_VARIABLE QX_CHANGELIST OUTPUT_STRIP_TRAILING_WHITESPACE
                ERROR_QUIET RESULT_VARIABLE qx_git_failed)
if(qx_git_failed OR NOT QX_CHANGELIST)
  set(QX_CHANGELIST 1)
endif()

function(qx_compile_settings target)
  target_compile_options(${target} PRIVATE ${QX_WARNINGS} ${QX_HARDENING})
endfunction()

function(qx_library name)
  cmake_parse_arguments(ARG "" "FLOOR" "LINK" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/${name}/*.cpp)
  if(sources)
    add_library(qx_${name} STATIC ${sources})
    target_include_directories(qx_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(qx_${name} PUBLIC ${ARG_LINK})
    qx_compile_settings(qx_${name})
    if(name STREQUAL "agent")
      # Only where it is shown: a commit must not compile the whole folder again.
      set_source_files_properties(${PROJECT_SOURCE_DIR}/src/agent/entry.cpp ${PROJECT_SOURCE_DIR}/src/agent/settings_init.cpp
                                  PROPERTIES COMPILE_DEFINITIONS QX_CHANGELIST=${QX_CHANGELIST})
    endif()
  else()
    add_library(qx_${name} INTERFACE)
    target_include_directories(qx_${name} INTERFACE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(qx_${name} INTERFACE ${ARG_LINK})
  endif()
endfunction()

# qx_program(binary stem LINK …): sources are programs/<binary>.cpp or programs/<binary>/*.cpp.
function(qx_program binary stem)
  cmake_parse_arguments(ARG "" "" "LINK" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/programs/${binary}.cpp
       ${PROJECT_SOURCE_DIR}/programs/${binary}/*.cpp)
  if(sources)
    add_executable(${binary} ${sources})
    target_link_libraries(${binary} PRIVATE ${ARG_LINK})
    qx_compile_settings(${binary})
    install(TARGETS ${binary} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endfunction()
