# Tests of the scheduler core and of the BFS policy.
add_library(xel_sch_test_support OBJECT sch_support.cpp sch_dispatch_support.cpp bfs_support.cpp
            bfs_model.cpp)
target_link_libraries(xel_sch_test_support PUBLIC xel_test_support)

foreach(program bfs_test bfs_select_test bfs_cache_test bfs_model_test sch_registry_test
                sch_init_test sch_inner_event_test sch_destroy_test sch_dispatch_test
                sch_process_test sch_trace_test sch_bind_test sch_ctl_test sch_callback_test
                sch_aside_test sch_rare_test sch_stress_test)
    xel_add_test(${program} LABEL scheduler SOURCES ${program}.cpp
                 LIBRARIES xel_sch_test_support xel_test_support)
endforeach()

# Definitions of its own stand in front of the memory service, so none of the helpers.
xel_add_test(sch_requests_test LABEL scheduler LIBRARIES xel_options xelsch xelbase
    SOURCES sch_requests_test.cpp)
