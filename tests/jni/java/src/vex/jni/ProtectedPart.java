package vex.jni;

import java.io.ByteArrayOutputStream;
import java.math.BigInteger;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import org.bouncycastle.asn1.DEROctetString;
import org.bouncycastle.asn1.DERTaggedObject;
import org.bouncycastle.asn1.cms.CMSObjectIdentifiers;
import org.bouncycastle.cms.CMSSignedData;
import org.bouncycastle.cms.SignerInformation;

/** A range of bytes in a P7 signature. */
record ProtectedPart(String name, int begin, int length) {
    /**
     * The parts that the signature protects: the content, the values of the signed attributes, and the signature value.
     * The tags and lengths around the values are not protected: openssl accepts a SET that is marked as primitive, and
     * verifies the correct encoding of the attributes.
     */
    static List<ProtectedPart> of(byte[] der) throws Exception {
        CMSSignedData signed = new CMSSignedData(der);
        SignerInformation signer = signed.getSignerInfos().getSigners().iterator().next();
        List<ProtectedPart> parts = new ArrayList<>();
        if (signed.getSignedContent() != null) {
            byte[] content = (byte[]) signed.getSignedContent().getContent();
            ProtectedPart contentField = part("", der, encodedContent(content));
            int end = contentField.begin() + contentField.length();
            parts.add(new ProtectedPart("the attached content", end - content.length, content.length));
        }
        // The attributes have another tag in the encoding than in the signed form.
        byte[] attributes = signer.getEncodedSignedAttributes();
        ProtectedPart field = part("", der, Arrays.copyOfRange(attributes, 1, attributes.length));
        addValues(der, field.begin() - 1, parts);
        parts.add(part("the signature value", der, signer.getSignature()));
        return parts;
    }

    /** Adds the value of the item at begin, or the values of the items in it. Returns the end of the item. */
    private static int addValues(byte[] der, int begin, List<ProtectedPart> parts) {
        int length = der[begin + 1] & 0xff;
        int value = begin + 2;
        if (length >= 0x80) {
            int size = length & 0x7f;
            length = new BigInteger(1, Arrays.copyOfRange(der, value, value + size)).intValueExact();
            value += size;
        }
        int end = value + length;
        if ((der[begin] & 0x20) == 0) {
            parts.add(new ProtectedPart("the values of the signed attributes", value, length));
        } else {
            for (int item = value; item < end;) {
                item = addValues(der, item, parts);
            }
        }
        return end;
    }

    /** The content with its type before it, which distinguishes short content from equal bytes elsewhere. */
    private static byte[] encodedContent(byte[] content) throws Exception {
        ByteArrayOutputStream encoded = new ByteArrayOutputStream();
        encoded.writeBytes(CMSObjectIdentifiers.data.getEncoded());
        encoded.writeBytes(new DERTaggedObject(true, 0, new DEROctetString(content)).getEncoded());
        return encoded.toByteArray();
    }

    /** The last occurrence of the bytes: the signer comes last in the encoding. */
    private static ProtectedPart part(String name, byte[] der, byte[] bytes) {
        for (int begin = der.length - bytes.length; begin >= 0; --begin) {
            if (Arrays.equals(der, begin, begin + bytes.length, bytes, 0, bytes.length)) {
                return new ProtectedPart(name, begin, bytes.length);
            }
        }
        throw new AssertionError(name + " is not in the encoding");
    }

    boolean contains(int bit) {
        return bit / 8 >= begin && bit / 8 < begin + length;
    }
}
