# Hardening: what Debian builds its packages with (hardening=+all) and, beyond that, stack-clash probes and the processor's
# control-flow enforcement.
include(CheckPIESupported)
check_pie_supported() # programs are linked as position independent, which not every compiler does by itself

# For everything, libdif included, what costs nothing that can be measured: relocations are done and made read-only before
# the first call, every routine that a pointer can reach begins with a landing pad, and binaries are marked as fit for a
# shadow stack. The mark for landing pads is left to the linker, which sets it where the C library's start files have them
# as well (Debian 12's have not).
add_compile_options(-fcf-protection)
add_link_options(LINKER:-z,relro LINKER:-z,now LINKER:-z,shstk)

# dif_harden(TARGET): the rest, for the host and the tool, which read what others wrote.
#
# libdif goes without. Stack protection takes 2 % of the speed of a check of one-block entries or of a single 4160-byte
# block, and calls a function of libc that no host has promised to bring. The others change nothing in it: no frame reaches
# the size of a page, and no buffer whose size the compiler knows goes to libc.
function(dif_harden target)
  if(DIF_SANITIZE)
    return()
  endif()
  target_compile_options(${target} PRIVATE -fstack-protector-strong -fstack-clash-protection -Werror=format-security)
  if(NOT CMAKE_CXX_FLAGS MATCHES _FORTIFY_SOURCE) # a distributor's own level stands; without optimisation there is none
    target_compile_options(${target} PRIVATE
      "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
  endif()
endfunction()
