// ICU under the names that the phone's library gives it, without a version: the host's own ICU.
// Apart from the other stand-ins, because ICU's header gives these names another meaning.

#include <unicode/uregex.h>

extern "C" {

void noteExpressions(int change);

URegularExpression* openIcu(const UChar*, int32_t, uint32_t, UParseError*,
                            UErrorCode*) asm("uregex_open");
void closeIcu(URegularExpression*) asm("uregex_close");
void setTextIcu(URegularExpression*, const UChar*, int32_t, UErrorCode*) asm("uregex_setText");
UBool findIcu(URegularExpression*, int32_t, UErrorCode*) asm("uregex_find");
int32_t startIcu(URegularExpression*, int32_t, UErrorCode*) asm("uregex_start");
int32_t endIcu(URegularExpression*, int32_t, UErrorCode*) asm("uregex_end");

URegularExpression* openIcu(const UChar* pattern, int32_t length, uint32_t flags,
                            UParseError* where, UErrorCode* status) {
  URegularExpression* expression = uregex_open(pattern, length, flags, where, status);
  if (expression) noteExpressions(1);
  return expression;
}
void closeIcu(URegularExpression* expression) {
  noteExpressions(-1);
  uregex_close(expression);
}
void setTextIcu(URegularExpression* expression, const UChar* text, int32_t length,
                UErrorCode* status) {
  uregex_setText(expression, text, length, status);
}
UBool findIcu(URegularExpression* expression, int32_t from, UErrorCode* status) {
  return uregex_find(expression, from, status);
}
int32_t startIcu(URegularExpression* expression, int32_t group, UErrorCode* status) {
  return uregex_start(expression, group, status);
}
int32_t endIcu(URegularExpression* expression, int32_t group, UErrorCode* status) {
  return uregex_end(expression, group, status);
}

}  // extern "C"
