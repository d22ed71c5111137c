#include <HvUtil/MD5.h>

#include <cstring>

MD5::MD5()
{
    CMD5Encrypt::MD5Init(&m_context);
}

HvHandle<HvByteArray> MD5::digest(HvHandle<HvByteArray> bytes)
{
    HvHandle<HvByteArray> result = HvByteArray::sCreate(MD5_LENGTH, nullptr);
    CMD5Encrypt::MD5Init(&m_context);
    if (!bytes.isNull())
        CMD5Encrypt::MD5Update(&m_context, bytes->getData(), bytes->getSize());
    CMD5Encrypt::MD5Final(result->getData(), &m_context);
    return result;
}
