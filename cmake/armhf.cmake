# Builds for 32-bit ARM with Debian's cross compiler, and runs what was built through qemu-user.
# VEXO_SYSROOT is what armhf-sysroot.sh made.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEXO_SYSROOT)

# The compiler's own libraries stay where its package put them: this adds to them. Not by
# CMAKE_..._FLAGS_INIT, which the presets' flags would replace.
set(libraries ${VEXO_SYSROOT}/usr/lib/arm-linux-gnueabihf)
include_directories(SYSTEM ${VEXO_SYSROOT}/usr/include
                    ${VEXO_SYSROOT}/usr/include/arm-linux-gnueabihf)

# qemu finds an ARM program's loader and libraries by their full paths; its -L would redirect every
# absolute path that a test opens.
set(runtime /usr/arm-linux-gnueabihf/lib)
add_link_options(-L${libraries} -Wl,-rpath-link,${VEXO_SYSROOT}/run -Wl,--disable-new-dtags
                 -Wl,--dynamic-linker=${runtime}/ld-linux-armhf.so.3
                 -Wl,-rpath,${runtime}:${VEXO_SYSROOT}/run)
find_program(qemu qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${qemu})

set(CMAKE_FIND_ROOT_PATH ${VEXO_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${libraries}/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${VEXO_SYSROOT})
