// The list of paths: where an entry's text is held, and what is cut.
#include "migration/string_list.h"
#include <gtest/gtest.h>
#include <string>

TEST(StringList, HoldsShortTextsInlineAndLongOnesByTheirCapacity)
{
    static const struct {
        size_t   cchText;
        uint32_t cchCapacity;
        size_t   cchRoom;
        size_t   cchHeld;
    } aCases[]      = {{3, 0, 260, 3},       {259, 260, 260, 259}, {260, 260, 260, 259},
                       {260, 261, 261, 260}, {3, 1024, 1024, 3},   {2000, 1024, 1024, 1023}};
    StringList list = {};
    for (const auto &c : aCases) {
        size_t       cchRoom = 0;
        StringEntry *pEntry  = AppendString(&list, std::u16string(c.cchText, u'x').c_str(), c.cchCapacity);
        ASSERT_NE(nullptr, pEntry);
        EXPECT_EQ(list.pLast, pEntry);
        EXPECT_EQ(std::u16string(c.cchHeld, u'x'), StringText(pEntry));
        EXPECT_EQ(StringText(pEntry), StringBuffer(pEntry, &cchRoom));
        EXPECT_EQ(c.cchRoom, cchRoom);
    }
    EXPECT_EQ(std::size(aCases), list.nCount);
    EXPECT_EQ(list.pFirst, list.pFirst->pNext->pPrevious);
    EXPECT_TRUE(ContainsString(&list, u"XXX"));
    EXPECT_FALSE(ContainsString(&list, u"xx"));
    EXPECT_FALSE(ContainsString(nullptr, u"xxx"));
    FreeStringList(&list);
    EXPECT_EQ(nullptr, list.pFirst);
    EXPECT_EQ(0u, list.nCount);
}
