# Flags that every target shares. The library's records hold 32-bit pointers, so everything is built for i386; SSE2
# arithmetic makes the same sums on every machine; 64-bit time and offsets keep 2038 and large files harmless.
add_compile_options(-m32 -msse2 -mfpmath=sse -fvisibility=hidden -fvisibility-inlines-hidden)
add_link_options(-m32)
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)

add_compile_options(-Wall -Wextra -Wconversion -Wshadow -Wformat=2 -Wundef -Werror
                    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
                    $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>)

if(CMAKE_BUILD_TYPE STREQUAL "Debug")
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
endif()

if(KV_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# One object library per folder: linked into libplatform.so, and as it is into the tests.
function(kv_folder_library name)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(sources)
    add_library(${name} OBJECT ${sources})
    target_link_libraries(${name} PUBLIC Threads::Threads)
    set_property(GLOBAL APPEND PROPERTY KV_FOLDER_LIBRARIES ${name})
  endif()
endfunction()
