# Warnings and sanitizers, applied to every target of the tree.
add_compile_options(-Wall -Wextra)
if(PELMORA_WERROR)
  add_compile_options(-Werror)
endif()

if(PELMORA_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(PELMORA_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT PELMORA_SANITIZE STREQUAL "")
  message(FATAL_ERROR "PELMORA_SANITIZE must be empty, 'address' or 'thread'")
endif()
# GCC 12 reports false "may be used uninitialized" warnings inside <regex> and <functional> once
# the sanitizers' instrumentation changes what it inlines; the plain build keeps the warning.
if(NOT PELMORA_SANITIZE STREQUAL "" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-maybe-uninitialized)
endif()

# pelmora_export_only(<target> <symbol>...): a linker version script that keeps the
# dynamic symbol table to exactly the contract, whatever static code is linked in.
function(pelmora_export_only target)
  set(map "${CMAKE_CURRENT_BINARY_DIR}/${target}.map")
  list(JOIN ARGN "; " symbols)
  file(WRITE "${map}" "{\n  global: ${symbols};\n  local: *;\n};\n")
  target_link_options(${target} PRIVATE "-Wl,--version-script=${map}")
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${map}")
endfunction()
