# The English texts of the message library as rows of a C++ table: {number, "text"},
s/[\\"]/\\&/g
s/^0*\([1-9][0-9]*\)E.\(.*\)$/{\1, "\2"},/p
