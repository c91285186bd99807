# Foreign headers are SYSTEM: their warnings are not ours.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(DBUSCXX REQUIRED IMPORTED_TARGET dbus-c++-1)
pkg_check_modules(DBUS REQUIRED IMPORTED_TARGET dbus-1)
pkg_check_modules(ALSA REQUIRED IMPORTED_TARGET alsa)
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
pkg_check_modules(BSD REQUIRED IMPORTED_TARGET libbsd)

find_library(FLITE_VOICE_LIBRARY flite_cmu_us_slt REQUIRED)
find_library(FLITE_ENGLISH_LIBRARY flite_usenglish REQUIRED)
find_library(FLITE_LEXICON_LIBRARY flite_cmulex REQUIRED)
find_library(FLITE_LIBRARY flite REQUIRED)
add_library(flite INTERFACE)
target_link_libraries(flite INTERFACE ${FLITE_VOICE_LIBRARY} ${FLITE_ENGLISH_LIBRARY}
                                      ${FLITE_LEXICON_LIBRARY} ${FLITE_LIBRARY} m)

find_program(DBUSXX_XML2CPP dbusxx-xml2cpp REQUIRED)

# GCC's stack reader lies in the compiler's own folders. Clang looks there for libraries but must
# not for headers (they would hide its own), so the one header is copied out. It is no part of a
# sysroot.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-libgcc-file-name
                OUTPUT_VARIABLE LIBGCC OUTPUT_STRIP_TRAILING_WHITESPACE)
get_filename_component(GCC_FOLDER ${LIBGCC} DIRECTORY)
find_library(BACKTRACE_LIBRARY backtrace HINTS ${GCC_FOLDER} REQUIRED
             NO_CMAKE_FIND_ROOT_PATH)
find_file(BACKTRACE_HEADER backtrace.h HINTS ${GCC_FOLDER}/include REQUIRED
          NO_CMAKE_FIND_ROOT_PATH)
configure_file(${BACKTRACE_HEADER} ${CMAKE_BINARY_DIR}/backtrace/backtrace.h COPYONLY)
add_library(backtrace INTERFACE)
target_link_libraries(backtrace INTERFACE ${BACKTRACE_LIBRARY})
target_include_directories(backtrace SYSTEM INTERFACE ${CMAKE_BINARY_DIR}/backtrace)
