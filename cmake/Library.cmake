# The library, compiled once as position-independent objects and packed
# twice: libvel.so.0 (vel::vel) and libvel.a (vel::vel_static).
#
# The shared library exports only the declarations marked VEL_API
# (include/vel/export.h); vel.map also hides the weak instances of standard
# library templates that inline code would otherwise export. The static
# archive keeps every symbol, so tests can reach internal functions.
file(GLOB_RECURSE VEL_LIB_SOURCES CONFIGURE_DEPENDS
     ${PROJECT_SOURCE_DIR}/src/base/*.cpp ${PROJECT_SOURCE_DIR}/src/log/*.cpp
     ${PROJECT_SOURCE_DIR}/src/client/*.cpp ${PROJECT_SOURCE_DIR}/src/agent/*.cpp
     ${PROJECT_SOURCE_DIR}/src/model/*.cpp ${PROJECT_SOURCE_DIR}/src/api/*.cpp)

add_library(vel_objects OBJECT ${VEL_LIB_SOURCES})
set_target_properties(vel_objects PROPERTIES POSITION_INDEPENDENT_CODE ON
                      CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
target_compile_features(vel_objects PRIVATE cxx_std_17)
target_include_directories(vel_objects PRIVATE ${PROJECT_SOURCE_DIR}/include
                           ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(vel_objects PRIVATE vel_deps::jsoncpp vel_deps::ace vel_deps::hiredis)
vel_set_warnings(vel_objects)

# Public headers include jsoncpp's and ACE's, so those are public
# dependencies; hiredis stays behind the library. Installed targets name the
# dependencies as velConfig.cmake finds them.
function(vel_add_library target type)
  add_library(${target} ${type} $<TARGET_OBJECTS:vel_objects>)
  set_target_properties(${target} PROPERTIES OUTPUT_NAME vel)
  target_compile_features(${target} INTERFACE cxx_std_17)
  target_include_directories(${target} INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target}
    PUBLIC $<BUILD_INTERFACE:vel_deps::jsoncpp> $<BUILD_INTERFACE:vel_deps::ace>
           $<INSTALL_INTERFACE:JsonCpp::JsonCpp> $<INSTALL_INTERFACE:PkgConfig::vel_ACE>
    PRIVATE $<BUILD_INTERFACE:vel_deps::hiredis> $<INSTALL_INTERFACE:PkgConfig::vel_hiredis>)
endfunction()

vel_add_library(vel_shared SHARED)
set(VEL_VERSION_SCRIPT ${PROJECT_SOURCE_DIR}/cmake/vel.map)
set_target_properties(vel_shared PROPERTIES
  EXPORT_NAME vel
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  LINK_DEPENDS ${VEL_VERSION_SCRIPT})
target_link_options(vel_shared PRIVATE "LINKER:--version-script=${VEL_VERSION_SCRIPT}"
                    LINKER:--no-undefined LINKER:--as-needed)
add_library(vel::vel ALIAS vel_shared)

vel_add_library(vel_static STATIC)
set_target_properties(vel_static PROPERTIES EXPORT_NAME vel_static)
add_library(vel::vel_static ALIAS vel_static)
