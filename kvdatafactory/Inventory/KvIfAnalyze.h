#pragma once
/// @file
/// Inventory sections of definition files.

#include "kvdatafactory/Inventory/KvInventoryFactory.h"

/// Reads one section into the inventory of that id, which is made when there is none: its instances come behind those
/// that are there. A fault ends the section; what was read of it stays.
/// @param section  from behind its tag @param id  1 to 7 @param limit  where the whole text ends
/// @return 0; 0x607B4201 null argument; 0x607B1302 no such id, or no text; what ended the section
uint32_t KvIf_CreateInstance(char* section, unsigned long id, const char* limit);

/// Adds the columns that a field holds, one element after another.
/// @return 0; 0x60CE4201 null argument; 0x60CE1302 no known column, or one that makes no sense; 0x60001202
uint32_t KvIf_AddColumn(CKvInstance* instance, char* text, const char* limit);
/// What the element at the front of text is.
unsigned long KvIf_GetColumnType(const char* text);
/// Fills a column from the element at the front of text.
/// @param text  moves to the element's closing parenthesis when 0 is returned
uint32_t KvIf_SetColumn(CKvColumn* column, char*& text, const char* limit, unsigned long type);
