# Warnings are private flags of our own targets; third-party headers stay quiet.
function(tessra_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wconversion -Werror)
endfunction()
