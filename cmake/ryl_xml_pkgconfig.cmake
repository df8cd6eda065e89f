# Writes ryl_xml.pc for the prefix being installed to and installs it; runs
# at install time (see ryl_xml_install.cmake, which sets the RYL_PC_*
# variables). file(INSTALL) adds DESTDIR and records the file in the manifest.
set(RYL_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
foreach(_kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${RYL_PC_${_kind}}")
    set(RYL_PC_${_kind}_PATH "${RYL_PC_${_kind}}")
  else()
    set(RYL_PC_${_kind}_PATH "\${prefix}/${RYL_PC_${_kind}}")
  endif()
endforeach()
if(IS_ABSOLUTE "${RYL_PC_LIBDIR}")
  set(_pc_destination "${RYL_PC_LIBDIR}/pkgconfig")
else()
  set(_pc_destination "${CMAKE_INSTALL_PREFIX}/${RYL_PC_LIBDIR}/pkgconfig")
endif()
# One staging directory per prefix, so that installs to different prefixes
# do not overwrite each other's file.
string(MD5 _prefix_hash "${CMAKE_INSTALL_PREFIX}")
set(_pc_stage "${RYL_PC_STAGE_DIR}/${_prefix_hash}/ryl_xml.pc")
configure_file("${RYL_PC_TEMPLATE}" "${_pc_stage}" @ONLY)
file(INSTALL DESTINATION "${_pc_destination}" TYPE FILE FILES "${_pc_stage}")
