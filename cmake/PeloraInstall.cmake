# Install rules: the static and shared libraries with an export set, the public headers, the CMake
# package (peloraConfig.cmake, peloraConfigVersion.cmake, peloraTargets.cmake) and pelora.pc.
# Included once from the root CMakeLists.txt after the library targets exist.
include(CMakePackageConfigHelpers)

set(PELORA_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/pelora"
    CACHE STRING "Where peloraConfig.cmake goes, relative to the install prefix")
mark_as_advanced(PELORA_INSTALL_CMAKEDIR)

# Installed shared libraries find their siblings where they lie (libpelora-gtk.so needs
# libpelora.so.1), whatever the prefix, without LD_LIBRARY_PATH or ldconfig.
set_target_properties(pelora_shared PROPERTIES INSTALL_RPATH "$ORIGIN")
if(PELORA_HAS_GTK)
  set_target_properties(pelora_gtk_shared PROPERTIES INSTALL_RPATH "$ORIGIN")
endif()

# Two export sets: the shared library needs nothing of our dependencies at build time, the static
# one needs their development files, so the package loads it (and looks for them) only on demand.
install(TARGETS pelora_shared EXPORT peloraTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS pelora_static EXPORT peloraStaticTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

# The public headers: pelora/pelora.h (the C API, plain C with core/export.h), pelora/pelora.hpp and every
# header of ours it includes, directly or not.
# Internals (the HTTP client, the user-defaults suite, RapidJSON glue, ...) stay in the tree.
function(pelora_public_headers out)
  set(todo pelora/pelora.h pelora/pelora.hpp)
  set(seen)
  while(todo)
    list(POP_FRONT todo header)
    if(header IN_LIST seen)
      continue()
    endif()
    list(APPEND seen ${header})
    file(STRINGS ${PROJECT_SOURCE_DIR}/${header} includes REGEX "^#include \"pelora/")
    foreach(line IN LISTS includes)
      string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" included "${line}")
      list(APPEND todo ${included})
    endforeach()
  endwhile()
  set(${out} ${seen} PARENT_SCOPE)
endfunction()
pelora_public_headers(PELORA_PUBLIC_HEADERS)
# Re-run the walk when a public header changes its includes.
foreach(header IN LISTS PELORA_PUBLIC_HEADERS)
  set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/${header})
  get_filename_component(header_dir ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${header_dir})
endforeach()

# The WebKitGTK toolkit, when built: its libraries, its header, and an export set of its own that
# the package loads only for find_package(pelora COMPONENTS gtk).
if(PELORA_HAS_GTK)
  install(TARGETS pelora_gtk_shared EXPORT peloraGtkTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(TARGETS pelora_gtk_static EXPORT peloraGtkStaticTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/pelora/platform/gtk/gtk_toolkit.hpp
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pelora/platform/gtk)
  install(EXPORT peloraGtkTargets NAMESPACE pelora:: FILE peloraGtkTargets.cmake
    DESTINATION ${PELORA_INSTALL_CMAKEDIR})
  install(EXPORT peloraGtkStaticTargets NAMESPACE pelora:: FILE peloraGtkStaticTargets.cmake
    DESTINATION ${PELORA_INSTALL_CMAKEDIR})
endif()

# CMake package: find_package(pelora) gives pelora::pelora_shared, pelora::pelora_static and
# pelora::pelora (the shared one, or the static one when pelora_USE_STATIC_LIBS is ON); with
# COMPONENTS gtk also pelora::gtk (likewise) from pelora::gtk_shared and pelora::gtk_static.
install(EXPORT peloraTargets NAMESPACE pelora:: FILE peloraTargets.cmake
  DESTINATION ${PELORA_INSTALL_CMAKEDIR})
install(EXPORT peloraStaticTargets NAMESPACE pelora:: FILE peloraStaticTargets.cmake
  DESTINATION ${PELORA_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/peloraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/peloraConfig.cmake INSTALL_DESTINATION ${PELORA_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/peloraConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/peloraConfig.cmake ${PROJECT_BINARY_DIR}/peloraConfigVersion.cmake
  DESTINATION ${PELORA_INSTALL_CMAKEDIR})

# pkg-config. Written at install time so that its paths follow the prefix actually installed to
# (cmake --install --prefix DIR), not the one configured. The static library's dependencies are
# linker flags in Libs.private rather than modules in Requires.private: pkgconf resolves
# Requires.private even for --cflags, and a shared consumer must not need their .pc files.
set(PELORA_PC_LIBS_PRIVATE "-lcurl -lcrypto -luuid -lz -pthread")
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
    set(PELORA_PC_${dir} "${CMAKE_INSTALL_${dir}}")
  else()
    set(PELORA_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
install(CODE "
  set(PELORA_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(PELORA_PC_LIBDIR [==[${PELORA_PC_LIBDIR}]==])
  set(PELORA_PC_INCLUDEDIR [==[${PELORA_PC_INCLUDEDIR}]==])
  set(PELORA_PC_VERSION [==[${PROJECT_VERSION}]==])
  set(PELORA_PC_LIBS_PRIVATE [==[${PELORA_PC_LIBS_PRIVATE}]==])
  configure_file([==[${CMAKE_CURRENT_LIST_DIR}/pelora.pc.in]==] [==[${PROJECT_BINARY_DIR}/pelora.pc]==] @ONLY)
")
install(FILES ${PROJECT_BINARY_DIR}/pelora.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# install_package: installs this build into a temporary prefix and builds tests/install against it
# with find_package (shared and static) and with pkg-config, using this build's compiler and flags.
if(PELORA_BUILD_TESTS)
  set(PELORA_CONSUMER_FLAGS "${CMAKE_CXX_FLAGS}")
  if(PELORA_SANITIZE)
    string(APPEND PELORA_CONSUMER_FLAGS " -fsanitize=${PELORA_SANITIZE} -fno-omit-frame-pointer")
  endif()
  add_test(NAME install_package
    COMMAND ${CMAKE_COMMAND} -E env
      "CXX=${CMAKE_CXX_COMPILER}"
      "CXXFLAGS=${PELORA_CONSUMER_FLAGS}"
      "CMAKE_GENERATOR=${CMAKE_GENERATOR}"
      "CMAKE_BUILD_TYPE=${CMAKE_BUILD_TYPE}"
      bash ${PROJECT_SOURCE_DIR}/tests/install/check.sh ${PROJECT_BINARY_DIR})
  set_tests_properties(install_package PROPERTIES TIMEOUT 300 LABELS install)
endif()
