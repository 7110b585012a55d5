package vex.jni;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.Arrays;
import java.util.Set;
import java.util.TreeSet;
import java.util.stream.Collectors;
import org.junit.jupiter.api.Tag;
import org.junit.jupiter.api.Test;

/** The natives and their signatures. A changed one would compile here, and only applications would fail. */
@Tag("natives")
class NativeMethodsTest {
    private static final Set<String> SIGNATURES = Set.of(
        "public native long Initialize(String,String)",
        "public native long SetDigestAlg(long,String)",
        "public native long SetChooseSingleCert(long,int)",
        "public native long AddFilter(long,long,String)",
        "public native long ClearFilter(long)",
        "public native long Finalize(long)",
        "public native String P1Sign(long,String)",
        "public native String P1SignString(long,String)",
        "public native String P7Sign(long,String,long,long)",
        "public native String P7SignString(long,String,long,long)",
        "public native String GetSignVersion(long)",
        "public native String GetSignCert(long)",
        "public native long GetLastError(long)",
        "public native String GetLastErrorMessage(long)",
        "public native String GetCertList(long)");

    @Test
    void declaresExactlyFifteenNatives() {
        Set<String> found = new TreeSet<>();
        for (Method method : TAVClientJNI.class.getDeclaredMethods()) {
            if (Modifier.isNative(method.getModifiers())) {
                found.add(describe(method));
            }
        }
        assertEquals(new TreeSet<>(SIGNATURES), found);
        assertEquals(15, found.size());
    }

    private static String describe(Method method) {
        String parameters = Arrays.stream(method.getParameterTypes())
            .map(Class::getSimpleName)
            .collect(Collectors.joining(","));
        return Modifier.toString(method.getModifiers()) + " " + method.getReturnType().getSimpleName() + " "
            + method.getName() + "(" + parameters + ")";
    }
}
