// A small XML reader for the message files: declarations, comments, elements with attributes and
// text that is the sole content of an element; the five predefined entities. The tag structure is
// checked in a pass of its own, which can also repair unbalanced tags.
#pragma once
#include "base/Owners.h"
#include "uefi/Base.h"

enum XmlNodeType : UINT32 { XML_DECLARATION = 0, XML_ELEMENT = 1, XML_COMMENT = 2, XML_TEXT = 3 };

struct XmlAttribute {
  CHAR16* Name;
  CHAR16* Value;
};

struct XmlNode {
  XmlNode* Parent;
  XmlNode* FirstChild;
  XmlNode* LastChild;
  XmlNode* PrevSibling;
  XmlNode* NextSibling;
  UINT32 Type;
  CHAR16* Name; // element: tag name; comment, text: the text; declaration: the version
  union {
    XmlAttribute* Attributes; // element
    CHAR16* Encoding;         // declaration (null when absent)
  };
  union {
    UINTN AttributeCount; // element
    CHAR16 Standalone[4]; // declaration: "yes", "no" or ""
  };
};

enum XmlDirection : UINTN { XML_SIBLINGS = 0, XML_PRE_ORDER = 1, XML_POST_ORDER = 2 };

EFI_STATUS XmlLoadFile(const CHAR16* Path, XmlNode** Document, BOOLEAN Repair);
void XmlFreeDocument(XmlNode* Node);
XmlNode* XmlFindElement(XmlNode* Start, INTN Count, UINTN Direction, XmlNode* Scope, const CHAR16* Name,
                        BOOLEAN NameIsPattern, const CHAR16* AttributeName, BOOLEAN AttributeNameIsPattern,
                        const CHAR16* AttributeValue, BOOLEAN AttributeValueIsPattern);
const CHAR16* XmlGetAttributeValue(const XmlNode* Node, const CHAR16* Name, BOOLEAN CaseSensitive);
XmlNode* XmlNextNode(XmlNode* Node, UINTN Direction, XmlNode* Scope);
EFI_STATUS FileData2XmlDocString(const UINT8* Data, UINTN Size, CHAR16** String);
EFI_STATUS ValidateXmlDocString(const CHAR16* Document, BOOLEAN Repair, CHAR16** Validated);
EFI_STATUS XmlLoadString(const CHAR16* Document, XmlNode** Result, BOOLEAN Repair);

// A document freed whichever way its owner's scope ends.
using XmlDocumentOwner = wc::Owned<XmlNode, XmlFreeDocument>;
