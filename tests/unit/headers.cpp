// Stands for the headers that every unit test includes: see CMakeLists.txt.
