# Warning and hardening flags shared by every target of the project.
function(da_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(DA_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  # Debian's hardening: a canary in every function with an array on its stack,
  # and the C library's checked copies where the size of the target is known,
  # so that an overrun stops the process rather than corrupt what lies beside
  # it. The checked copies need an optimised build.
  target_compile_options(${target} PRIVATE -fstack-protector-strong
                                           $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
endfunction()
