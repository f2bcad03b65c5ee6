# How targets of this project are compiled. Nothing of it reaches those who link them.
add_library(kiln_flags INTERFACE)
target_compile_options(kiln_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion
                                            -Wnon-virtual-dtor -Werror)
# g++ 12 warns falsely of what its own std::string does once that is inlined, and takes a source that is compiled in
# a batch for a header, whose types in anonymous namespaces would have no linkage.
target_compile_options(kiln_flags INTERFACE
                       "$<$<CXX_COMPILER_ID:GNU>:-Wno-restrict;-Wno-array-bounds;-Wno-stringop-overflow;-Wno-subobject-linkage>")
if(KILN_SANITIZE)
  target_compile_options(kiln_flags INTERFACE -fsanitize=${KILN_SANITIZE} -fno-omit-frame-pointer
                                              -fno-sanitize-recover=all
                                              $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(kiln_flags INTERFACE -fsanitize=${KILN_SANITIZE})
endif()
if(KILN_COVERAGE)
  target_compile_options(kiln_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(kiln_flags INTERFACE --coverage)
endif()

# The flags above for `target`. Its sources are compiled in batches if a size is given.
function(kiln_target target)
  target_link_libraries(${target} PRIVATE kiln_flags)
  if(ARGC GREATER 1)
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE ${ARGV1})
  endif()
endfunction()
