# The public headers as hosts compile them: strictly, without the flags of the library itself, in old C and C++ and new.
# headers.c takes all of them and holds the code samples of their comments; each must also do alone.
file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${CMAKE_SOURCE_DIR}/include ${CMAKE_SOURCE_DIR}/include/libplatform/*.h)

function(kv_compile_headers name suffix)
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/headers/${name})
  set(sources ${folder}/samples.${suffix})
  file(GENERATE OUTPUT ${folder}/samples.${suffix} CONTENT "#include \"tests/library/headers.c\"\n")
  foreach(header ${headers})
    get_filename_component(stem ${header} NAME_WE)
    file(GENERATE OUTPUT ${folder}/${stem}.${suffix} CONTENT "#include \"${header}\"\n")
    list(APPEND sources ${folder}/${stem}.${suffix})
  endforeach()
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE platform)
  target_compile_options(${name} PRIVATE -Wpedantic -U_GNU_SOURCE -U_FILE_OFFSET_BITS -U_TIME_BITS)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests ${ARGN})
  add_test(NAME headers.${name} COMMAND ${name})
endfunction()

kv_compile_headers(host_c99 c C_STANDARD 99 C_EXTENSIONS OFF)
kv_compile_headers(host_cxx11 cpp CXX_STANDARD 11)
kv_compile_headers(host_cxx20 cpp CXX_STANDARD 20)
