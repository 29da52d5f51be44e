# The headers that a module writer gets, as paths below src/. Nothing else is installed.
set(RAVD_PUBLIC_HEADERS
  # A module and its trace
  daemon/switch_interface.h daemon/module_abi.h
  trace/debug.h trace/debug_module_calls.h trace/debug_trace_config.h trace/debug_trace_config_file.h
  trace/entry_formatter.h trace/header_lines.h trace/log_file.h trace/resident_memory.h trace/ring_buffer.h
  trace/trace_settings.h platform/unique_fd.h
  platform/critical_section.h platform/cancellation.h platform/export.h
  # The library
  platform/event.h platform/ini_file.h platform/process.h platform/semaphore.h platform/thread.h platform/wait_result.h
  registry/registry.h registry/registry_node.h registry/registry_value.h
  firmware/data_stream.h firmware/smbios_lookup.h firmware/smbios_walk.h
  pci/pci_address.h pci/pci_config_header.h pci/pci_config_list.h pci/pci_slot_map.h
  inventory/adapter_resources.h inventory/mount_entry.h inventory/pnp_device.h inventory/scsi_address.h
  inventory/system_adapter.h inventory/system_adapter_list.h inventory/system_device.h inventory/system_device_scan.h
  inventory/system_drive.h inventory/system_partition.h inventory/system_volume.h
  perfmon/data_history_buffer.h perfmon/perf_data.h perfmon/perf_mon.h
  netif/host_ip_address.h netif/interface_change.h netif/interface_change_listener.h netif/ip_address.h
  netif/ipv4_routing_entry.h netif/libnetif_exception.h netif/network_interface.h netif/network_interface_manager.h
  netif/network_statistics.h netif/routing_table_manager.h)
# As an include directory: the headers above and daemon/version.h, made from the project's version.
set(RAVD_PUBLIC_INCLUDE ${CMAKE_BINARY_DIR}/public/include)
foreach(header ${RAVD_PUBLIC_HEADERS})
  configure_file(${PROJECT_SOURCE_DIR}/src/${header} ${RAVD_PUBLIC_INCLUDE}/${header} COPYONLY)
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/src/daemon/version.h.in ${RAVD_PUBLIC_INCLUDE}/daemon/version.h @ONLY)
