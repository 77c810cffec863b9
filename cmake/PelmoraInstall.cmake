# cmake --install: the three shared libraries with their headers, a CMake package
# (find_package(Pelmora) -> Pelmora::Pelmora), a pkg-config file, the monitor (installed by its
# own folder), the default configuration, the tools' manual pages and the udev rules.
include(CMakePackageConfigHelpers)

set(PELMORA_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/Pelmora)
set(PELMORA_INSTALL_SHAREDIR ${CMAKE_INSTALL_DATADIR}/pelmora)

install(FILES code/include/Pelmora.h quenwick/include/Quenwick.h tarnwell/include/Tarnwell.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY config/ DESTINATION ${PELMORA_INSTALL_SHAREDIR}/config FILES_MATCHING PATTERN "*.ini")

# udev rules that open only phones: a fixed head (ADB and fastboot interfaces), then one rule per
# product of the shipped AndroidPIDWhite.ini, so that the two never drift apart.
set(udev_rules ${PROJECT_BINARY_DIR}/packaging/51-pelmora-android.rules)
file(STRINGS ${PROJECT_SOURCE_DIR}/config/AndroidPIDWhite.ini white_lines REGEX "^(; 0x|[0-9]+=[0-9]+$)")
file(READ ${PROJECT_SOURCE_DIR}/packaging/udev-rules-head.txt rules_text)
function(pelmora_hex4 value out)
  math(EXPR hex "${value}" OUTPUT_FORMAT HEXADECIMAL)
  string(REGEX REPLACE "^0x" "" hex "${hex}")
  string(LENGTH "${hex}" digits)
  while(digits LESS 4)
    string(PREPEND hex "0")
    math(EXPR digits "${digits} + 1")
  endwhile()
  string(TOLOWER "${hex}" hex)
  set(${out} "${hex}" PARENT_SCOPE)
endfunction()
set(product_remark "")
foreach(line IN LISTS white_lines)
  if(line MATCHES "^; (.*)$")
    set(product_remark "${CMAKE_MATCH_1}")
    continue()
  endif()
  string(REGEX REPLACE "^([0-9]+)=([0-9]+)$" "\\1;\\2" fields "${line}")
  list(GET fields 0 vendor_id)
  list(GET fields 1 product_id)
  pelmora_hex4(${vendor_id} vendor_hex)
  pelmora_hex4(${product_id} product_hex)
  string(APPEND rules_text "# ${product_remark}\nATTR{idVendor}==\"${vendor_hex}\", ATTR{idProduct}==\"${product_hex}\", MODE=\"0660\", GROUP=\"plugdev\", TAG+=\"uaccess\"\n")
  set(product_remark "")
endforeach()
string(APPEND rules_text "\nLABEL=\"pelmora_android_end\"\n")
file(CONFIGURE OUTPUT ${udev_rules} CONTENT "${rules_text}" @ONLY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/config/AndroidPIDWhite.ini ${PROJECT_SOURCE_DIR}/packaging/udev-rules-head.txt)
install(FILES ${udev_rules} DESTINATION ${PELMORA_INSTALL_SHAREDIR}/udev)

# The tools' manual pages, with this release's version.
foreach(tool pelmora-monitor pelmora-sim-phone)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/man/${tool}.1.in ${PROJECT_BINARY_DIR}/packaging/${tool}.1 @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/packaging/${tool}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endforeach()

if(NOT TARGET Pelmora OR NOT TARGET Quenwick OR NOT TARGET Tarnwell)
  return()
endif()

# Installed side by side, each library finds the others in its own folder.
set_target_properties(Pelmora Quenwick Tarnwell PROPERTIES INSTALL_RPATH "${PELMORA_RPATH_ORIGIN}")
set_target_properties(quenwick_headers PROPERTIES EXPORT_NAME QuenwickHeaders)
set_target_properties(tarnwell_headers PROPERTIES EXPORT_NAME TarnwellHeaders)
install(TARGETS Pelmora Quenwick Tarnwell quenwick_headers tarnwell_headers
        EXPORT PelmoraTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT PelmoraTargets NAMESPACE Pelmora:: DESTINATION ${PELMORA_INSTALL_CMAKEDIR})

configure_package_config_file(${PROJECT_SOURCE_DIR}/packaging/PelmoraConfig.cmake.in
  ${PROJECT_BINARY_DIR}/packaging/PelmoraConfig.cmake INSTALL_DESTINATION ${PELMORA_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/packaging/PelmoraConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/packaging/PelmoraConfig.cmake
              ${PROJECT_BINARY_DIR}/packaging/PelmoraConfigVersion.cmake
        DESTINATION ${PELMORA_INSTALL_CMAKEDIR})

# The .pc file finds its prefix from its own place, so an installed tree can be moved.
file(RELATIVE_PATH PELMORA_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" PELMORA_PC_TO_PREFIX "${PELMORA_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/packaging/pelmora.pc.in ${PROJECT_BINARY_DIR}/packaging/pelmora.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/pelmora.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
