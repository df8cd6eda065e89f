# XML document library: tokens, parse outcomes and limits, queries, dump
# bytes, and round trips through trace files the collector writes (in a
# child process of its own, so that its collector starts with the VUN_DIR the
# test gives it). The XML objects themselves are linked in without the
# collector: the test process writes no run directory.
ryl_add_test(xml_document_test xml_document_test.cpp LABELS xml LIBS ryl_xml_document)
