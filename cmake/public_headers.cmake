# The headers that a module writer gets, as paths below src/. Nothing else is installed.
set(RAVD_PUBLIC_HEADERS
  daemon/switch_interface.h daemon/module_abi.h
  trace/debug.h trace/debug_module_calls.h trace/debug_trace_config.h trace/debug_trace_config_file.h
  trace/entry_formatter.h trace/header_lines.h trace/log_file.h trace/resident_memory.h trace/ring_buffer.h
  trace/trace_settings.h platform/unique_fd.h
  platform/critical_section.h)
# As an include directory: the headers above and daemon/version.h, made from the project's version.
set(RAVD_PUBLIC_INCLUDE ${CMAKE_BINARY_DIR}/public/include)
foreach(header ${RAVD_PUBLIC_HEADERS})
  configure_file(${PROJECT_SOURCE_DIR}/src/${header} ${RAVD_PUBLIC_INCLUDE}/${header} COPYONLY)
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/src/daemon/version.h.in ${RAVD_PUBLIC_INCLUDE}/daemon/version.h @ONLY)
