# Warnings are errors everywhere; a file that must silence one says so, with the reason, in that file.
function(keyward_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -fstack-protector-strong)
endfunction()
