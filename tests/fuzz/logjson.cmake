# The log-line and JSON-answer target reads the answers back with nlohmann-json.
find_package(nlohmann_json 3 REQUIRED)
tvc_add_fuzzer(NAME logjson SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/logjson_fuzzer.cpp
               LIBRARIES nlohmann_json::nlohmann_json)
