# Flags that every target of the project shares, and the one way in which its libraries are declared.

add_compile_options(-Wall -Wextra -Wpedantic -Wnon-virtual-dtor -Woverloaded-virtual -Werror -fno-omit-frame-pointer)
add_compile_definitions(BOOST_ASIO_SEPARATE_COMPILATION BOOST_ASIO_NO_DEPRECATED QT_NO_KEYWORDS)

if(KORVANE_SANITIZE)
    add_compile_options(-fsanitize=${KORVANE_SANITIZE} -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${KORVANE_SANITIZE})
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    add_link_options(-fuse-ld=lld)
endif()
# Assertions are part of the program also when it is optimised.
string(REPLACE "-DNDEBUG" "" CMAKE_CXX_FLAGS_RELEASE "${CMAKE_CXX_FLAGS_RELEASE}")

find_program(KORVANE_CCACHE ccache)
if(KORVANE_CCACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${KORVANE_CCACHE})
    set(CMAKE_C_COMPILER_LAUNCHER ${KORVANE_CCACHE})
endif()

# korvane_library(name folder...): a static library of all sources in the folders, not in their subfolders.
function(korvane_library name)
    set(sources)
    foreach(folder IN LISTS ARGN)
        file(GLOB found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp ${PROJECT_SOURCE_DIR}/${folder}/*.h)
        list(APPEND sources ${found})
    endforeach()
    add_library(${name} STATIC ${sources})
    set_target_properties(${name} PROPERTIES LINKER_LANGUAGE CXX)
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
endfunction()
