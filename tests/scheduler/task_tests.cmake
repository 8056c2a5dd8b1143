# Fixed-unit table, tasks and diagnostics.
xel_add_test(fixed_table_test
    LABEL scheduler
    SOURCES fixed_table_test.cpp
    LIBRARIES xel_test_support)

xel_add_test(task_attr_test
    LABEL scheduler
    SOURCES task_attr_test.cpp
    LIBRARIES xel_test_support)

xel_add_test(task_table_test
    LABEL scheduler
    SOURCES task_init_test.cpp task_table_test.cpp task_destroy_test.cpp task_change_test.cpp
    LIBRARIES xel_test_support)

xel_add_test(task_query_test
    LABEL scheduler
    SOURCES task_insert_test.cpp task_query_test.cpp
    LIBRARIES xel_test_support)

xel_add_test(dbg_test
    LABEL scheduler
    SOURCES dbg_test.cpp dbg_name_test.cpp
    LIBRARIES xel_test_support)

xel_add_test(task_stress_test
    LABEL scheduler
    SOURCES task_stress_test.cpp
    LIBRARIES xel_test_support)
