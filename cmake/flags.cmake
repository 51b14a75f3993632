# Compiler and linker flags of every target, and how a shared library of the project is made.

add_library(osal_flags INTERFACE)
target_compile_options(osal_flags INTERFACE
  -Wall -Wextra -Wpedantic -Werror -fno-semantic-interposition
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
target_link_options(osal_flags INTERFACE -Wl,--build-id=sha1)
target_link_libraries(osal_flags INTERFACE Threads::Threads)

if(OSAL_SANITIZE)
  target_compile_options(osal_flags INTERFACE
    -fsanitize=${OSAL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(osal_flags INTERFACE -fsanitize=${OSAL_SANITIZE})
endif()
if(OSAL_COVERAGE)
  # Counters are shared by threads.
  target_compile_options(osal_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(osal_flags INTERFACE --coverage)
endif()

# Clang links no sanitizer runtime into shared libraries, which -z defs would refuse.
if(NOT (OSAL_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang"))
  set(OSAL_DEFS_FLAG -Wl,-z,defs)
endif()

# osal_shared_library(target MAP file [OUTPUT name] SOURCES ...): a shared library whose exports are
# those of a linker map. The map is preprocessed, so that it can be written from the headers' lists.
function(osal_shared_library target)
  cmake_parse_arguments(ARG "" "MAP;OUTPUT" "SOURCES" ${ARGN})
  add_library(${target} SHARED ${ARG_SOURCES})
  set(map ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
  add_custom_command(OUTPUT ${map}
    COMMAND ${CMAKE_C_COMPILER} -E -P -x c -MD -MF ${map}.d -MT ${map} -I${CMAKE_SOURCE_DIR}/include
            -imacros ${CMAKE_SOURCE_DIR}/include/osal/identifiers.h
            -imacros ${CMAKE_SOURCE_DIR}/include/osal/slots_iosal.h
            -imacros ${CMAKE_SOURCE_DIR}/include/osal/slots_iom.h
            -imacros ${CMAKE_SOURCE_DIR}/include/osal/slots_iscom.h
            ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_MAP} -o ${map}
    DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_MAP} DEPFILE ${map}.d
    COMMENT "Linker map of ${target}" VERBATIM)
  add_custom_target(${target}_map DEPENDS ${map})
  add_dependencies(${target} ${target}_map)
  set_target_properties(${target} PROPERTIES LINK_DEPENDS ${map}
    BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH "$ORIGIN")
  if(ARG_OUTPUT)
    set_target_properties(${target} PROPERTIES PREFIX "" OUTPUT_NAME ${ARG_OUTPUT})
  endif()
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/include>)
  target_link_libraries(${target} PRIVATE osal_flags)
  target_link_options(${target} PRIVATE ${OSAL_DEFS_FLAG} -Wl,--version-script=${map}
    -Wl,-Bsymbolic-functions -Wl,--enable-new-dtags -Wl,--as-needed -Wl,-z,relro -Wl,-z,now)
endfunction()
