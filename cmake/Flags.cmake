# Flags that every target shares. The library's records hold 32-bit pointers, so everything is built for i386; SSE2
# arithmetic makes the same sums on every machine; 64-bit time and offsets keep 2038 and large files harmless.
add_compile_options(-m32 -msse2 -mfpmath=sse -fvisibility=hidden
                    $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>)
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

# For the folders of what stands beside the library: tests, programs and the simulator wait for nobody, and optimising
# them takes four times as long as the whole library. KV_OPTIMISE_ALL is for packages.
macro(kv_quick_to_build)
  if(NOT KV_OPTIMISE_ALL)
    add_compile_options(-O0)
  endif()
endmacro()

# One archive per folder, which names the lower ones that it may use: all of them make libplatform.so, and a test takes
# from them what it calls.
function(kv_folder_library name)
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(${name} STATIC ${sources})
  target_link_libraries(${name} PUBLIC ${ARGN} Threads::Threads)
  set_property(GLOBAL APPEND PROPERTY KV_FOLDER_LIBRARIES ${name})
endfunction()
