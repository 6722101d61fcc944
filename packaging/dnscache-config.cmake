# dnscache::dnscache or dnscache::dnscache_static, and after it a platform layer: dnscache::dnscache_linux, or your own.
include(CMakeFindDependencyMacro)
find_dependency(PkgConfig)
pkg_check_modules(dnscache_glib QUIET IMPORTED_TARGET glib-2.0)
if(NOT dnscache_glib_FOUND)
    set(dnscache_FOUND FALSE)
    set(dnscache_NOT_FOUND_MESSAGE "dnscache needs glib-2.0, which pkg-config does not find")
    return()
endif()
include(${CMAKE_CURRENT_LIST_DIR}/dnscache-targets.cmake)

# CMake would link the C++ runtime into a program in C that uses the static library, which needs none of it.
get_target_property(dnscache_configurations dnscache::dnscache_static IMPORTED_CONFIGURATIONS)
foreach(dnscache_configuration ${dnscache_configurations})
    set_property(TARGET dnscache::dnscache_static
        PROPERTY IMPORTED_LINK_INTERFACE_LANGUAGES_${dnscache_configuration} C)
endforeach()
unset(dnscache_configuration)
unset(dnscache_configurations)
