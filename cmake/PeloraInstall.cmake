# Install rules: the static and shared libraries with an export set, the public headers, the CMake
# package (peloraConfig.cmake, peloraConfigVersion.cmake, peloraTargets.cmake) and pelora.pc.
# Included once from the root CMakeLists.txt after the library targets exist.
include(CMakePackageConfigHelpers)

set(PELORA_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/pelora"
    CACHE STRING "Where peloraConfig.cmake goes, relative to the install prefix")
mark_as_advanced(PELORA_INSTALL_CMAKEDIR)

install(TARGETS pelora_static pelora_shared EXPORT peloraTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Public headers keep their folders under include/pelora. Left out: unit tests, detail/ folders,
# *_internal.hpp and the optional GTK adapter. CONFIGURE_DEPENDS re-globs on every build, so a new
# header is installed without a manual re-configure.
file(GLOB_RECURSE PELORA_PUBLIC_HEADERS CONFIGURE_DEPENDS
  RELATIVE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/pelora/*.hpp)
list(FILTER PELORA_PUBLIC_HEADERS EXCLUDE REGEX "_test[^/]*$")
list(FILTER PELORA_PUBLIC_HEADERS EXCLUDE REGEX "(^|/)detail/")
list(FILTER PELORA_PUBLIC_HEADERS EXCLUDE REGEX "_internal\\.hpp$")
list(FILTER PELORA_PUBLIC_HEADERS EXCLUDE REGEX "^pelora/platform/gtk/")
foreach(header IN LISTS PELORA_PUBLIC_HEADERS)
  get_filename_component(header_dir ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${header_dir})
endforeach()
# Generated from pelora/core/service_hosts.hpp.in.
install(FILES ${PROJECT_BINARY_DIR}/include/pelora/core/service_hosts.hpp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pelora/core)

# The WebKitGTK toolkit, when built: its libraries, its header, and an export set of its own that
# the package loads only for find_package(pelora COMPONENTS gtk).
if(PELORA_HAS_GTK)
  install(TARGETS pelora_gtk_static pelora_gtk_shared EXPORT peloraGtkTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${PROJECT_SOURCE_DIR}/pelora/platform/gtk/gtk_toolkit.hpp
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/pelora/platform/gtk)
  install(EXPORT peloraGtkTargets NAMESPACE pelora:: FILE peloraGtkTargets.cmake
    DESTINATION ${PELORA_INSTALL_CMAKEDIR})
endif()

# CMake package: find_package(pelora) gives pelora::pelora_shared, pelora::pelora_static and
# pelora::pelora (the shared one, or the static one when pelora_USE_STATIC_LIBS is ON); with
# COMPONENTS gtk also pelora::gtk (likewise) from pelora::gtk_shared and pelora::gtk_static.
install(EXPORT peloraTargets NAMESPACE pelora:: FILE peloraTargets.cmake
  DESTINATION ${PELORA_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/peloraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/peloraConfig.cmake INSTALL_DESTINATION ${PELORA_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/peloraConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/peloraConfig.cmake ${PROJECT_BINARY_DIR}/peloraConfigVersion.cmake
  DESTINATION ${PELORA_INSTALL_CMAKEDIR})

# pkg-config. Written at install time so that its paths follow the prefix actually installed to
# (cmake --install --prefix DIR), not the one configured. A new dependency of the static library
# goes into PELORA_PC_REQUIRES_PRIVATE (pkg-config module names, e.g. "libcurl openssl") or, if it
# has no .pc file, into PELORA_PC_LIBS_PRIVATE.
set(PELORA_PC_REQUIRES_PRIVATE "libcurl libcrypto uuid")
set(PELORA_PC_LIBS_PRIVATE "-pthread")
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
  set(PELORA_PC_REQUIRES_PRIVATE [==[${PELORA_PC_REQUIRES_PRIVATE}]==])
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
