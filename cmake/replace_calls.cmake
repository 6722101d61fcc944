# replace_calls(TARGET NAME...): in TARGET, a call of NAME calls __wrap_NAME; __real_NAME is the function itself.
function(replace_calls target)
    list(TRANSFORM ARGN PREPEND -Wl,--wrap=)
    target_link_options(${target} PRIVATE ${ARGN})
endfunction()
