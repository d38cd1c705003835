# Firmware build: x86-64 UEFI images (PE32+) compiled freestanding by clang and linked by lld-link.
set(CMAKE_SYSTEM_NAME Generic)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(WIRECHECK_FIRMWARE ON CACHE BOOL "Build the firmware images" FORCE)
