# The pages' browser test: headless Chromium driven through Selenium against tvc-webd, which the
# script starts in the device sandbox (a fresh one per scenario).  Included by the web host's
# test directory; needs the target tvc-webd.  Debian's python3 on purpose: Selenium comes from
# its package, and another python3 first on PATH would not have it.
get_filename_component(TVC_BROWSER_ROOT ${CMAKE_CURRENT_LIST_DIR}/../.. ABSOLUTE)
set(TVC_BROWSER_PYTHON /usr/bin/python3 CACHE FILEPATH "The Python that has Selenium")
set(TVC_WEBHOST_SCREENSHOTS ${CMAKE_BINARY_DIR}/webhost-screenshots CACHE PATH
  "Where the browser test saves a screenshot of each page")
set(TVC_PAM_DIR "" CACHE PATH "Directory of the built pam_tvc_tally.so, pam_tvc_script.so and pam_tally2")

add_test(NAME webhost_browser
  COMMAND ${TVC_BROWSER_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/browser_test.py
    --webd $<TARGET_FILE:tvc-webd>
    --static ${TVC_BROWSER_ROOT}/tools/webhost/static
    --sandbox ${TVC_BROWSER_ROOT}/tools/sandbox/tvc-sandbox
    --screenshots ${TVC_WEBHOST_SCREENSHOTS})
# The script exits 77 when no sandbox can be built (and CI is not "true").
set_tests_properties(webhost_browser PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 300)
if(TVC_PAM_DIR)
  set_property(TEST webhost_browser APPEND PROPERTY ENVIRONMENT TVC_PAM_DIR=${TVC_PAM_DIR})
endif()
