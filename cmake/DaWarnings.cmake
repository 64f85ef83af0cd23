# Warning flags shared by every target of the project.
function(da_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(DA_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
