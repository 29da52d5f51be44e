# RPM packages of what the Debian ones hold: `cpack -G RPM` in a build for /usr, on a machine whose own packages are RPMs.
# What both say of themselves stands in debian/control, what has changed in CHANGELOG.md. The libraries that a package
# needs are found by rpmbuild.
file(READ debian/control control)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS debian/control ${PROJECT_SOURCE_DIR}/CHANGELOG.md)

set(CPACK_COMPONENTS_ALL ravd ravctl library devel)
if(TARGET module_switch)
  list(APPEND CPACK_COMPONENTS_ALL modules)
endif()
if(RAVD_DOCS)
  list(APPEND CPACK_COMPONENTS_ALL doc)
endif()
set(debian_name_of_ravd ravd)
set(debian_name_of_ravctl ravctl)
set(debian_name_of_library libravagent3)
set(debian_name_of_devel libravagent-dev)
set(debian_name_of_modules ravd-modules)
set(debian_name_of_doc ravd-doc)
foreach(component ${CPACK_COMPONENTS_ALL})
  string(REGEX MATCH "\nPackage: ${debian_name_of_${component}}\n([^\n]+\n)+" paragraph "${control}")
  string(REGEX MATCH "\nDescription: ([^\n]*)\n(.*)" description "${paragraph}")
  string(TOUPPER ${component} name)
  set(CPACK_RPM_${name}_PACKAGE_SUMMARY "${CMAKE_MATCH_1}")
  string(REGEX REPLACE "(^|\n) \\.?" "\\1" CPACK_RPM_${name}_PACKAGE_DESCRIPTION "${CMAKE_MATCH_2}")
endforeach()
set(CPACK_RPM_MAIN_COMPONENT ravd)
set(CPACK_RPM_RAVCTL_PACKAGE_NAME ravctl)
set(CPACK_RPM_MODULES_PACKAGE_NAME ravd-modules)
set(CPACK_RPM_LIBRARY_PACKAGE_NAME libravagent)
set(CPACK_RPM_DEVEL_PACKAGE_NAME libravagent-devel)
set(CPACK_RPM_DOC_PACKAGE_NAME ravd-doc)
set(CPACK_RPM_DOC_PACKAGE_ARCHITECTURE noarch)
set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)

string(REGEX MATCH "\nMaintainer: ([^\n]*)" maintainer "${control}")
set(maintainer "${CMAKE_MATCH_1}")
set(CPACK_PACKAGE_VENDOR "ravd developers")
set(CPACK_RPM_PACKAGE_LICENSE LicenseRef-all-rights-reserved)
set(CPACK_RPM_PACKAGE_GROUP System/Management)
set(CPACK_RPM_PACKAGE_RELEASE 1)
set(CPACK_PACKAGE_RELOCATABLE OFF)

# %changelog: the entry of this version, whose heading is "## VERSION (YYYY-MM-DD)".
file(READ ${PROJECT_SOURCE_DIR}/CHANGELOG.md changes)
string(REGEX MATCH "\n## ${PROJECT_VERSION} \\(([0-9-]+)\\)\n\n(([^#\n][^\n]*\n)+)" entry "${changes}")
set(items "${CMAKE_MATCH_2}")
execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C date -d "${CMAKE_MATCH_1}" "+%a %b %d %Y"
  OUTPUT_VARIABLE day OUTPUT_STRIP_TRAILING_WHITESPACE)
string(REPLACE "%" "%%" items "${items}")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/rpm-changelog
  "* ${day} ${maintainer} - ${PROJECT_VERSION}-${CPACK_RPM_PACKAGE_RELEASE}\n${items}")
set(CPACK_RPM_CHANGELOG_FILE ${CMAKE_CURRENT_BINARY_DIR}/rpm-changelog)

# The service
set(CPACK_RPM_RAVD_POST_INSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/post_install.sh)
set(CPACK_RPM_RAVD_PRE_UNINSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/pre_uninstall.sh)
set(CPACK_RPM_RAVD_POST_UNINSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/post_uninstall.sh)
foreach(moment POST PREUN POSTUN)
  set(CPACK_RPM_RAVD_PACKAGE_REQUIRES_${moment} systemd)
endforeach()
set(CPACK_RPM_MODULES_POST_INSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/restart_service.sh)
set(CPACK_RPM_MODULES_POST_UNINSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/restart_service.sh)
set(CPACK_RPM_RAVD_USER_FILELIST "%config(noreplace) ${RAVD_DEFAULTS_DIR}/ravd"
  "%config(noreplace) /etc/norrow/QuennetSuite/TraceConfig/ravd.ini")

# Directories that belong to the system and not to a package.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION ${RAVD_DEFAULTS_DIR} /var /var/log)
foreach(directory ${CMAKE_INSTALL_SBINDIR} ${CMAKE_INSTALL_LIBEXECDIR} ${CMAKE_INSTALL_LIBDIR} ${CMAKE_INSTALL_LIBDIR}/cmake
    ${CMAKE_INSTALL_LIBDIR}/pkgconfig lib/systemd lib/systemd/system lib/tmpfiles.d share/bash-completion
    share/bash-completion/completions share/fish share/fish/vendor_completions.d share/zsh
    share/zsh/vendor-completions share/man share/man/man1 share/man/man5 share/man/man8)
  list(APPEND CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION /usr/${directory})
endforeach()

# Whoever packs the same build gets the same packages. The weak dependencies, for which there is no variable, as in
# debian/control.
set(CPACK_RPM_SPEC_MORE_DEFINE [[
%define _buildhost reproducible
%define use_source_date_epoch_as_buildtime 1
%define clamp_mtime_to_source_date_epoch 1
%define _build_id_links none
%if "%{name}" == "ravd"
Suggests: ravctl
%endif
%if "%{name}" == "ravd-modules"
Requires: ravd = %{version}-%{release}
Provides: ravd-switch
Conflicts: ravd-switch
%endif
%if "%{name}" == "ravctl"
Recommends: ravd, pciutils
Suggests: bash-completion
%endif
%if "%{name}" == "libravagent-devel"
Requires: libravagent = %{version}-%{release}
Obsoletes: ravd-devel < 3.12.5
Provides: ravd-devel = %{version}
Recommends: cmake, gcc-c++, ravd = %{version}-%{release}
%endif
]])
string(APPEND CPACK_RPM_SPEC_MORE_DEFINE "%define packager ${maintainer}")
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_GENERATOR RPM)
set(CPACK_SOURCE_GENERATOR OFF)
include(CPack)
