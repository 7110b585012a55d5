package vex.interop;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.nio.file.Path;
import java.util.Calendar;
import org.apache.pdfbox.pdmodel.PDDocument;
import org.apache.pdfbox.pdmodel.PDPage;
import org.apache.pdfbox.pdmodel.interactive.digitalsignature.PDSignature;

/** PDFBox, which takes a detached CMS signature from a callback. */
final class Pdf {
    private Pdf() {}

    static void verifiedByBouncyCastle(Signer signer) throws Exception {
        check(signer, BouncyCastle::verify);
    }

    static void verifiedByOpenSsl(Signer signer) throws Exception {
        check(signer, BouncyCastle::verifyWithOpenSsl);
    }

    private static void check(Signer signer, CmsVerifier verifier) throws Exception {
        byte[] signed = signedDocument(signer);
        try (PDDocument document = PDDocument.load(signed)) {
            PDSignature signature = document.getLastSignatureDictionary();
            int[] range = signature.getByteRange();
            assertEquals(0, range[0]);
            assertEquals(signed.length, range[2] + range[3]);
            // Everything except the signature, in its brackets.
            byte[] content = signature.getSignedContent(signed);
            assertEquals(range[1] + range[3], content.length);
            assertEquals('<', signed[range[1]]);
            assertEquals('>', signed[range[2] - 1]);
            byte[] cms = signature.getContents(signed);
            verifier.verify(signer, cms, content);
            content[content.length / 2] ^= 1;
            assertThrows(AssertionError.class, () -> verifier.verify(signer, cms, content));
        }
    }

    private static byte[] signedDocument(Signer signer) throws Exception {
        Path plain = signer.directory().resolve("plain.pdf");
        try (PDDocument document = new PDDocument()) {
            document.addPage(new PDPage());
            document.save(plain.toFile());
        }
        try (PDDocument document = PDDocument.load(plain.toFile());
                ByteArrayOutputStream output = new ByteArrayOutputStream()) {
            PDSignature signature = new PDSignature();
            signature.setFilter(PDSignature.FILTER_ADOBE_PPKLITE);
            signature.setSubFilter(PDSignature.SUBFILTER_ADBE_PKCS7_DETACHED);
            signature.setSignDate(Calendar.getInstance());
            document.addSignature(signature, content -> {
                try {
                    return BouncyCastle.sign(signer, content.readAllBytes());
                } catch (IOException e) {
                    throw e;
                } catch (Exception e) {
                    throw new IOException(e);
                }
            });
            document.saveIncremental(output);
            return output.toByteArray();
        }
    }
}
