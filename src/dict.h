// Dictionary filter: an optional word list that keeps only its words in every
// text value, or removes them.
#ifndef MHBOOST_DICT_H_
#define MHBOOST_DICT_H_

/// Null-terminated array of words in file order (duplicates kept).
char** Read_Dictionary(const char* path);
/// Blanks out the words of `text` that are in the dictionary.
void Remove_Dict_Words(char** dictionary, char* text);
/// Blanks out the words of `text` that are not in the dictionary.
void Remove_Non_Dict_Words(char** dictionary, char* text);

#endif  // MHBOOST_DICT_H_
