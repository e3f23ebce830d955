# The web host's router and body handling, driven over a loopback socket: its sources but
# main.cpp, with the device configuration reader, built against the library's code here (not
# the installed package) with the definitions tools/webhost/CMakeLists.txt gives them.
set(TVC_WEBHOST_DIR ${PROJECT_SOURCE_DIR}/tools/webhost)
find_package(nlohmann_json REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS SSL Crypto)
# Debian's compiled cpp-httplib: its defines shape the classes, so they come from its
# pkg-config file only.
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)

file(GLOB TVC_WEBHOST_FUZZ_SOURCES CONFIGURE_DEPENDS ${TVC_WEBHOST_DIR}/src/*.cpp)
list(REMOVE_ITEM TVC_WEBHOST_FUZZ_SOURCES ${TVC_WEBHOST_DIR}/src/main.cpp)
tvc_add_fuzzer(NAME webhost
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/webhost_fuzzer.cpp ${TVC_WEBHOST_FUZZ_SOURCES}
    ${PROJECT_SOURCE_DIR}/tools/deviceconfig/DeviceConfig.cpp
  LIBRARIES PkgConfig::HTTPLIB nlohmann_json::nlohmann_json OpenSSL::SSL OpenSSL::Crypto)
target_include_directories(webhost_fuzzer PRIVATE ${TVC_WEBHOST_DIR}/src ${PROJECT_SOURCE_DIR}/tools)
target_compile_definitions(webhost_fuzzer PRIVATE
  TVC_WEBHOST_SOURCE_STATIC="${TVC_WEBHOST_DIR}/static"
  TVC_WEBHOST_INSTALLED_STATIC="${CMAKE_INSTALL_FULL_DATADIR}/tvc-webd/static")

# Logins go through the sample device's PAM stack (no delay after a wrong password, the
# failed-login tally), which the sandbox installs from TVC_PAM_DIR.
if(NOT TARGET tvc_pam_stack)
  add_subdirectory(${PROJECT_SOURCE_DIR}/tools/sampledevice/pam ${CMAKE_BINARY_DIR}/tools/sampledevice/pam)
  # Instrumented like everything here, the modules take the sanitizer runtime from the process
  # that loads them (this fuzzer): clang's runtime is not theirs to link, so no --no-undefined.
  set_target_properties(pam_tvc_tally pam_tvc_script PROPERTIES LINK_OPTIONS "")
endif()
add_dependencies(webhost_fuzzer tvc_pam_stack)
target_compile_definitions(webhost_fuzzer PRIVATE TVC_FUZZ_PAM_DIR="${CMAKE_BINARY_DIR}/tools/sampledevice/pam")
set_property(TEST fuzz_webhost APPEND PROPERTY ENVIRONMENT TVC_PAM_DIR=${CMAKE_BINARY_DIR}/tools/sampledevice/pam)
