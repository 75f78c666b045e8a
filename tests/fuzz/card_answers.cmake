elatectwn4_add_fuzzer(card_answers SOURCES ${CMAKE_CURRENT_LIST_DIR}/card_answers_fuzz.cpp LINK elatectwn4_static)
