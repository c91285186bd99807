# As Debian hardens its packages, and every symbol bound before the first request: a process that runs
# for months takes texts of anybody who may speak.
add_compile_options(
  "$<$<CONFIG:RelWithDebInfo>:-fstack-protector-strong;-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
add_link_options($<$<CONFIG:RelWithDebInfo>:LINKER:-z,relro,-z,now>)
