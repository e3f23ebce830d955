# The ThreadSanitizer runtime's options for every suite run under it (the library's and the web
# host's): a report fails the test (exit code 66, after the run), each one with both stacks of a
# race; the suppressions name only code outside the project (see tsan.supp).
set(TVC_TSAN_OPTIONS
  "halt_on_error=0 exitcode=66 second_deadlock_stack=1 history_size=4 suppressions=${CMAKE_CURRENT_LIST_DIR}/tsan.supp")
