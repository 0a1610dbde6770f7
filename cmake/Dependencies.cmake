# Locates hiredis, jsoncpp, ACE and GoogleTest by header and library, so that
# the same lookup works natively and inside a cross-compilation sysroot.
function(vel_import name header lib)
  find_path(${name}_INCLUDE_DIR ${header} PATH_SUFFIXES ${ARGN})
  find_library(${name}_LIBRARY ${lib})
  if(NOT ${name}_INCLUDE_DIR OR NOT ${name}_LIBRARY)
    message(FATAL_ERROR "${name} not found (header ${header}, library ${lib}); "
                        "run scripts/deps.sh")
  endif()
  add_library(vel_deps::${name} UNKNOWN IMPORTED)
  set_target_properties(vel_deps::${name} PROPERTIES
    IMPORTED_LOCATION ${${name}_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${${name}_INCLUDE_DIR})
endfunction()

vel_import(hiredis hiredis/hiredis.h hiredis)
vel_import(jsoncpp json/json.h jsoncpp jsoncpp)
vel_import(ace ace/ACE.h ACE)
find_package(Threads REQUIRED)
set_property(TARGET vel_deps::ace APPEND PROPERTY INTERFACE_LINK_LIBRARIES
             Threads::Threads ${CMAKE_DL_LIBS} rt)

# The agent's WebDAV and S3 stores: libcurl for HTTP, pugixml for the
# answers, OpenSSL's libcrypto for the digests S3 requests carry.
if(VEL_BUILD_TOOLS)
  vel_import(curl curl/curl.h curl)
  vel_import(pugixml pugixml.hpp pugixml)
  vel_import(crypto openssl/evp.h crypto)
endif()
# The agent's sync record: SQLite for the record, xxHash for content hashes
# (the agent's request fuzzer builds the command layer too).
if(VEL_BUILD_TOOLS OR VEL_BUILD_FUZZ)
  vel_import(sqlite3 sqlite3.h sqlite3)
  vel_import(xxhash xxhash.h xxhash)
endif()
