# Builds for 64-bit Arm with Debian's cross compiler against its arm64 packages, which are installed next to the machine's own.
# Tests run under qemu's user-mode emulation.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

find_program(GAKPPC_QEMU_AARCH64 qemu-aarch64)
mark_as_advanced(GAKPPC_QEMU_AARCH64)
if(GAKPPC_QEMU_AARCH64)
    set(CMAKE_CROSSCOMPILING_EMULATOR "${GAKPPC_QEMU_AARCH64}")
endif()
