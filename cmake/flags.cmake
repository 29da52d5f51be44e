# Compiler and linker flags of every target, in one interface library.
add_library(ravd_flags INTERFACE)
target_compile_options(ravd_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wnon-virtual-dtor
  -Woverloaded-virtual -Wold-style-cast -Wcast-align -Wnull-dereference -Wundef -Wvla
  -Wno-format-nonliteral
  # PIC rather than PIE code: it needs no copy relocations, which would appear as exported data.
  -fPIC -fstack-protector-strong -fcf-protection=full -fno-omit-frame-pointer)
target_link_options(ravd_flags INTERFACE $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie>
  -Wl,-z,relro,-z,now,-z,noexecstack)
if(RAVD_WERROR)
  target_compile_options(ravd_flags INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # A unique symbol would keep a library in the process for good.
  target_compile_options(ravd_flags INTERFACE -fno-gnu-unique -fstack-clash-protection -Wduplicated-cond -Wlogical-op
    -Wno-format-truncation)  # a text that is cut is cut by contract
  if(RAVD_SANITIZE)
    # The instrumented code makes GCC see null pointers where there are none.
    target_compile_options(ravd_flags INTERFACE -Wno-null-dereference -Wno-maybe-uninitialized)
  endif()
endif()
if(RAVD_SANITIZE)
  target_compile_options(ravd_flags INTERFACE -fsanitize=${RAVD_SANITIZE} -fno-sanitize-recover=all)
  target_link_options(ravd_flags INTERFACE -fsanitize=${RAVD_SANITIZE})
else()
  target_compile_options(ravd_flags INTERFACE
    "$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>" "$<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>")
endif()
