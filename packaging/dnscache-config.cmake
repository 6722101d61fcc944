# Link dnscache::dnscache or dnscache::dnscache_static, and after it a platform layer: dnscache::dnscache_linux, or yours.
if(CMAKE_VERSION VERSION_LESS 3.23)
    set(dnscache_FOUND FALSE)
    set(dnscache_NOT_FOUND_MESSAGE "dnscache needs CMake 3.23, which knows header file sets")
    return()
endif()
include(CMakeFindDependencyMacro)
find_dependency(PkgConfig)
pkg_check_modules(dnscache_glib QUIET IMPORTED_TARGET glib-2.0)
if(NOT dnscache_glib_FOUND)
    set(dnscache_FOUND FALSE)
    set(dnscache_NOT_FOUND_MESSAGE "dnscache needs glib-2.0, which pkg-config does not find")
    return()
endif()
include(${CMAKE_CURRENT_LIST_DIR}/dnscache-targets.cmake)

# The static library does not need the C++ runtime, but CMake would link it into a C program that uses the library.
get_target_property(dnscache_configurations dnscache::dnscache_static IMPORTED_CONFIGURATIONS)
foreach(dnscache_configuration ${dnscache_configurations})
    set_property(TARGET dnscache::dnscache_static
        PROPERTY IMPORTED_LINK_INTERFACE_LANGUAGES_${dnscache_configuration} C)
endforeach()
unset(dnscache_configuration)
unset(dnscache_configurations)
