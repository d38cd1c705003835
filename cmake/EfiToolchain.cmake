# Firmware build: UEFI images (PE32+) for x86-64 or, with -DWIRECHECK_ARCH=aarch64, for AArch64,
# compiled freestanding by clang and linked by lld-link.
set(WIRECHECK_ARCH x86_64 CACHE STRING "The processor the firmware images are for: x86_64 or aarch64")
set(CMAKE_SYSTEM_NAME Generic)
set(CMAKE_SYSTEM_PROCESSOR ${WIRECHECK_ARCH})
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(WIRECHECK_FIRMWARE ON CACHE BOOL "Build the firmware images" FORCE)
