"""Makes a certificate that is as large as the content, or, as number 1, the content itself."""


def external_sign_function(first_number, second_number, content, zky, pem):
    if first_number == 1:
        return bytearray.fromhex(content)
    certificate = bytearray(len(content) // 2)
    certificate[:8] = content[:8].encode()
    certificate[-8:] = content[-8:].encode()
    return certificate
