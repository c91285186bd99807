# Warnings go on our own targets only (googletest is built here too); sanitizers go on everything.
set(QUILLSPEAK_WARNINGS
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2 -Wold-style-cast -Wnon-virtual-dtor
    -Woverloaded-virtual -Wnull-dereference)
if(QUILLSPEAK_WERROR)
  list(APPEND QUILLSPEAK_WARNINGS -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  list(APPEND QUILLSPEAK_WARNINGS -Wthread-safety -Wthread-safety-beta)
endif()

if(QUILLSPEAK_SANITIZE)
  add_compile_options(-fsanitize=${QUILLSPEAK_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${QUILLSPEAK_SANITIZE})
endif()
