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

if(PELMORA_PORTABLE_POSIX)
  add_compile_definitions(PELMORA_PORTABLE_POSIX)
endif()

# What an installed binary's run path starts from: the folder of the file itself.
if(APPLE)
  set(PELMORA_RPATH_ORIGIN "@loader_path")
else()
  set(PELMORA_RPATH_ORIGIN "$ORIGIN")
endif()

# pelmora_export_only(<target> <symbol>...): a shared library's link rules. The dynamic symbol
# table keeps exactly the contract, whatever static code is linked in, and every symbol must be
# resolved when the library is linked (Apple's linker refuses undefined symbols by default).
function(pelmora_export_only target)
  if(APPLE)
    # Mach-O symbols carry a leading underscore.
    set(list_file "${CMAKE_CURRENT_BINARY_DIR}/${target}.exports")
    list(TRANSFORM ARGN PREPEND "_" OUTPUT_VARIABLE symbols)
    list(JOIN symbols "\n" lines)
    file(WRITE "${list_file}" "${lines}\n")
    target_link_options(${target} PRIVATE "LINKER:-exported_symbols_list,${list_file}")
  else()
    set(list_file "${CMAKE_CURRENT_BINARY_DIR}/${target}.map")
    list(JOIN ARGN "; " symbols)
    file(WRITE "${list_file}" "{\n  global: ${symbols};\n  local: *;\n};\n")
    target_link_options(${target} PRIVATE "LINKER:--version-script=${list_file}" "LINKER:--no-undefined")
  endif()
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${list_file}")
endfunction()
